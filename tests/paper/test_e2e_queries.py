"""Every query through SolaceAPI on the embedded paper broker, blocking and by callback. (What the
answers say after trading is in the orders and money tests.)"""

import datetime

import pytest

from quorvex.constant import ScannerType
from quorvex.paper import DEMO

from .support import run, stock

DAY = "2026-01-02"  # the Friday before the market's day
TSMC = stock()

QUERIES = [
    ("ticks", lambda api: (TSMC, DAY)),
    ("kbars", lambda api: (TSMC, DAY, DAY)),
    ("daily_quotes", lambda api: (datetime.date.fromisoformat(DAY), False)),
    ("snapshots", lambda api: ([TSMC],)),
    ("scanners", lambda api: (ScannerType.ChangePercentRank, False, DAY, 5)),
    ("credit_enquires", lambda api: ([TSMC],)),
    ("short_stock_sources", lambda api: ([TSMC],)),
    ("account_balance", lambda api: (api.default_stock_account,)),
    ("settlements", lambda api: (api.default_stock_account,)),
    ("list_settlements", lambda api: (api.default_stock_account,)),
    ("list_profit_loss", lambda api: (api.default_stock_account, DAY, DAY)),
    ("stock_reserve_summary", lambda api: (api.default_stock_account,)),
    ("stock_reserve_detail", lambda api: (api.default_stock_account,)),
    ("earmarking_detail", lambda api: (api.default_stock_account,)),
]


@pytest.fixture
def host(host):
    # Between the day and the night session, with the market clock all but stopped: nothing moves.
    return host + "?market_start=2026-01-05T14:00&clock_speed=0.001"


def plain(result):
    """The result as plain data, less what the broker stamps with its own wall clock."""
    if isinstance(result, list):
        return [plain(item) for item in result]
    fields = result.dict()
    fields.pop({"AccountBalance": "date", "ShortStockSource": "ts"}.get(type(result).__name__, ""), None)
    return fields


@pytest.mark.parametrize("query, args", QUERIES, ids=[query for query, _ in QUERIES])
def test_every_query_answers_alike_blocking_and_by_callback(make_api, query, args):
    api = make_api(DEMO.second)
    blocking = run(api, True, query, *args(api))
    delivered = run(api, False, query, *args(api))
    assert type(delivered) is type(blocking)
    assert plain(delivered) == plain(blocking)
