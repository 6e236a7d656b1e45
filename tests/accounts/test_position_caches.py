"""Positions and profit and loss: the per-account caches, the detail queries that read them,
and the profit-and-loss summary."""
import logging
from types import SimpleNamespace

import pytest
from conftest import ok, refused
from quorvex.account import FutureAccount, StockAccount
from quorvex.constant import FetchStatus, Unit
from quorvex.error import ServiceError
from quorvex.position import (
    FuturePosition,
    FuturePositionDetail,
    FutureProfitDetail,
    FutureProfitLoss,
    FutureProfitLossSummary,
    ProfitLossTotal,
    StockPosition,
    StockPositionDetail,
    StockProfitDetail,
    StockProfitLoss,
    StockProfitLossSummary,
)

STOCK = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0512345")
FUTURES = FutureAccount(person_id="A123456789", broker_id="F002000", account_id="1234567")
STOCK_KEY, FUTURES_KEY = "9A950512345", "F0020001234567"

POSITIONS = "api/v1/portfolio/position_unit"
POSITION_DETAIL = "api/v1/portfolio/position_detail"
PROFIT_LOSS = "api/v1/portfolio/profit_loss"
PROFIT_LOSS_DETAIL = "api/v1/portfolio/profit_loss_detail"
SUMMARY = "api/v1/portfolio/profitloss_sum"

STOCK_POSITIONS = [
    {"id": 0, "code": "2330", "direction": "Buy", "quantity": 3, "price": 580.0, "cond": "Cash"},
    {"id": 1, "code": "2317", "direction": "Sell", "quantity": 1, "price": 104.5, "cond": "ShortSelling"},
]
FUTURES_POSITIONS = [{"id": 0, "code": "TXFL6", "direction": "Buy", "quantity": 2, "price": 17000.0}]
STOCK_PROFIT_LOSS = [
    {"id": 0, "code": "2330", "seqno": "14", "dseq": "WA0001", "quantity": 1, "price": 590.0, "pnl": 9000.0,
     "cond": "Cash", "date": "20261118"},
    {"id": 1, "code": "2603", "seqno": "15", "dseq": "WA0002", "quantity": 2, "price": 61.0, "pnl": -300.0,
     "cond": "MarginTrading", "date": "20261119"},
]
FUTURES_PROFIT_LOSS = [{"id": 0, "code": "TXFL6", "direction": "Sell", "quantity": 1, "pnl": 4000.0,
                        "date": "20261119"}]


class Listing:
    """One cached listing: its method, the arguments after the account, and its reply."""

    def __init__(self, method, args, topic, cache, rows_key, stock, future):
        self.method, self.args, self.topic, self.cache = method, args, topic, cache
        self.rows_key, self.stock, self.future = rows_key, stock, future

    def call(self, api, account, **kw):
        return getattr(api, self.method)(account, *self.args, **kw)

    def reply(self, account, rows):
        return ok({"account": account.dict(), self.rows_key: rows})

    def rows(self, account):
        if self.rows_key == "positions":
            return STOCK_POSITIONS if account is STOCK else FUTURES_POSITIONS
        return STOCK_PROFIT_LOSS if account is STOCK else FUTURES_PROFIT_LOSS


LISTINGS = [
    Listing("list_positions", (Unit.Common,), POSITIONS, "_positions", "positions", StockPosition, FuturePosition),
    Listing("list_profit_loss", ("2026-11-01", "2026-11-20"), PROFIT_LOSS, "_profit_loss", "profitloss",
            StockProfitLoss, FutureProfitLoss),
]
listings = pytest.mark.parametrize("listing", LISTINGS, ids=[x.method for x in LISTINGS])
accounts = pytest.mark.parametrize("account,key", [(STOCK, STOCK_KEY), (FUTURES, FUTURES_KEY)],
                                   ids=["stock", "futures"])


@pytest.fixture(autouse=True)
def exit_hook_target(api_module, monkeypatch):
    # Instances register `logout` at construction; a build without the login area lacks it.
    if not hasattr(api_module.SolaceAPI, "logout"):
        monkeypatch.setattr(api_module.SolaceAPI, "logout", lambda self: None, raising=False)


@pytest.fixture
def warnings(api_module, monkeypatch):
    seen = []
    monkeypatch.setattr(api_module, "logger", SimpleNamespace(warning=seen.append))
    return seen


def listed(api, listing, account):
    # In simulation the listings go to the paper-trading service.
    topic = getattr(api, listing.method + "_topic")
    api.session.reply(topic, listing.reply(account, listing.rows(account)))
    return listing.call(api, account)


# ---- the cached listings ---------------------------------------------------------------


@listings
@accounts
def test_blocking_listing_fills_and_returns_the_cache_entry(api, listing, account, key):
    rows = listed(api, listing, account)

    assert rows is getattr(api, listing.cache)[key]
    expected = listing.stock if account is STOCK else listing.future
    assert [type(r) for r in rows] == [expected] * len(listing.rows(account))
    assert [r.id for r in rows] == [r["id"] for r in listing.rows(account)]
    payload = api.session.last(listing.topic).payload
    assert payload["account"] == account.dict()
    assert list(payload) == ["account", "unit"] if listing.method == "list_positions" else [
        "account", "begin_date", "end_date"]
    assert api._reqrep == {} and api._rep_callback_map == {}


@listings
def test_non_blocking_listing_fills_the_list_the_caller_holds(api, listing):
    api.session.reply(listing.topic, listing.reply(STOCK, listing.rows(STOCK)))
    calls = []
    rows = listing.call(api, STOCK, timeout=0, cb=calls.append)
    assert rows == [] and calls == []

    api.session.deliver()
    assert len(rows) == 2 and calls == [rows] and calls[0] is rows


@listings
def test_each_call_installs_a_fresh_list_after_sending(api, listing):
    first = listed(api, listing, STOCK)
    second = listing.call(api, STOCK, timeout=0)

    assert second is not first and second == [] and len(first) == 2
    api.session.deliver()
    assert getattr(api, listing.cache)[STOCK_KEY] is second and len(second) == 2
    assert len(first) == 2


@listings
def test_a_reply_racing_ahead_of_the_send_fills_the_previous_list(api, listing):
    first = listed(api, listing, STOCK)
    request = api.session.request

    def answered_at_once(topic, payload, corrid=None, timeout=None, cb=None):
        request(topic, payload, corrid=corrid, timeout=timeout, cb=cb)
        api.session.deliver()

    api.session.request = answered_at_once
    api.session.reply(listing.topic, listing.reply(STOCK, listing.rows(STOCK)[:1]))
    second = listing.call(api, STOCK, timeout=0)

    assert len(first) == 1 and second == [] and getattr(api, listing.cache)[STOCK_KEY] is second


@listings
def test_refused_listing_raises_and_leaves_the_cache_entry_empty(api, listing):
    api.session.reply(listing.topic, refused(500, "ledger unavailable"))
    with pytest.raises(ServiceError, match="ledger unavailable"):
        listing.call(api, STOCK)
    assert getattr(api, listing.cache)[STOCK_KEY] == []
    assert api._rep_callback_map == {}


@listings
def test_reply_for_an_account_never_listed_is_a_key_error(api, listing):
    api.session.reply(listing.topic, listing.reply(FUTURES, listing.rows(FUTURES)))
    with pytest.raises(KeyError, match=FUTURES_KEY):
        listing.call(api, STOCK)


@listings
def test_reply_without_account_is_logged(api, caplog, listing):
    api.session.reply(listing.topic, ok({"account": {}, listing.rows_key: listing.rows(STOCK)}))
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        assert listing.call(api, STOCK) == []
    assert [r.msg for r in caplog.records] == [{}]

    # With a callback there is no account to find its list by.
    listing.call(api, STOCK, timeout=0, cb=lambda rows: None)
    with pytest.raises(AttributeError, match="broker_id"):
        api.session.deliver()


@listings
def test_listings_are_sent_in_simulation(sim_api, warnings, listing):
    assert len(listed(sim_api, listing, STOCK)) == 2
    assert sim_api.session.topics() == [listing.topic.replace("portfolio", "paper")] and warnings == []


# ---- the detail queries ----------------------------------------------------------------

DETAILS = [
    # method, listing, topic, rows key, stock record, futures record
    ("list_position_detail", LISTINGS[0], POSITION_DETAIL, "position_detail", StockPositionDetail,
     FuturePositionDetail),
    ("list_profit_loss_detail", LISTINGS[1], PROFIT_LOSS_DETAIL, "profitdetail", StockProfitDetail,
     FutureProfitDetail),
]
details = pytest.mark.parametrize("method,listing,topic,rows_key,stock,future", DETAILS,
                                  ids=[d[0] for d in DETAILS])

DETAIL_ROWS = [{"date": "20261118", "code": "2330", "quantity": 1, "dseq": "WA0001", "direction": "Buy"},
               {"date": "20261119", "code": "2330", "quantity": 2, "dseq": "WA0003", "direction": "Buy"}]


@details
@accounts
def test_detail_of_a_cached_item(api, method, listing, topic, rows_key, stock, future, account, key):
    listed(api, listing, account)
    api.session.reply(topic, ok({"account": account.dict(), rows_key: DETAIL_ROWS}))
    rows = getattr(api, method)(account, 0)

    expected = stock if account is STOCK else future
    assert [type(r) for r in rows] == [expected, expected]
    assert [r.dseq for r in rows] == ["WA0001", "WA0003"]
    assert api._reqrep == {}


@pytest.mark.parametrize(
    "method,listing,account,payload",
    [
        ("list_position_detail", LISTINGS[0], STOCK,
         {"code": "2317", "action": "Sell", "ttype": "ShortSelling"}),
        ("list_position_detail", LISTINGS[0], FUTURES, {"code": "TXFL6", "action": "Buy"}),
        ("list_profit_loss_detail", LISTINGS[1], STOCK,
         {"stock": "2603", "ttype": "MarginTrading", "tdate": "20261119", "seqno": "15", "price": 61.0,
          "dseq": "WA0002"}),
        ("list_profit_loss_detail", LISTINGS[1], FUTURES, {"stock": "TXFL6", "tdate": "20261119"}),
    ],
    ids=["position-stock", "position-futures", "profit-loss-stock", "profit-loss-futures"],
)
def test_detail_payload_is_read_from_the_cached_item(api, method, listing, account, payload):
    listed(api, listing, account)
    detail_id = 1 if account is STOCK else 0
    getattr(api, method)(account, detail_id)

    sent = api.session.requests[-1].payload
    assert sent == dict({"account": account.dict()}, **payload)
    assert list(sent) == ["account"] + list(payload)


@details
def test_detail_of_an_unknown_item_sends_nothing(api, method, listing, topic, rows_key, stock, future):
    assert getattr(api, method)(STOCK, 0) == []  # account never listed
    listed(api, listing, STOCK)
    assert getattr(api, method)(STOCK, 7) == []  # no such id
    assert topic not in api.session.topics()


@details
def test_detail_uses_the_first_cached_item_with_the_id(api, method, listing, topic, rows_key, stock, future):
    listed(api, listing, STOCK)
    cache = getattr(api, listing.cache)[STOCK_KEY]
    cache[1] = cache[1].model_copy(update={"id": 0})
    getattr(api, method)(STOCK, 0)
    assert "2330" in api.session.last(topic).payload.values()


@details
def test_detail_is_refused_in_simulation(sim_api, warnings, method, listing, topic, rows_key, stock, future):
    assert len(listed(sim_api, listing, STOCK)) == 2
    assert getattr(sim_api, method)(STOCK, 0) == []
    assert warnings == [f"Simulation not support {method} yet"]
    assert topic not in sim_api.session.topics()


def test_position_detail_neither_raises_nor_calls_back(api, caplog):
    listed(api, LISTINGS[0], STOCK)
    calls = []
    api.session.reply(POSITION_DETAIL, refused(500, "detail unavailable"))
    with caplog.at_level(logging.DEBUG, logger="quorvex"):
        assert api.list_position_detail(STOCK, 0, cb=calls.append) == []
    assert caplog.records == []

    api.session.reply(POSITION_DETAIL, ok({"account": STOCK.dict(), "position_detail": DETAIL_ROWS}))
    rows = api.list_position_detail(STOCK, 0, timeout=0, cb=calls.append)
    api.session.deliver()
    assert len(rows) == 2 and calls == [] and api._rep_callback_map == {}


def test_profit_loss_detail_raises_and_calls_back(api):
    listed(api, LISTINGS[1], STOCK)
    api.session.reply(PROFIT_LOSS_DETAIL, refused(500, "detail unavailable"))
    with pytest.raises(ServiceError, match="detail unavailable"):
        api.list_profit_loss_detail(STOCK, 0)

    calls = []
    api.session.reply(PROFIT_LOSS_DETAIL, ok({"account": STOCK.dict(), "profitdetail": DETAIL_ROWS}))
    rows = api.list_profit_loss_detail(STOCK, 0, timeout=0, cb=calls.append)
    api.session.deliver()
    assert calls == [rows] and len(rows) == 2


@details
def test_detail_reply_without_account_is_logged(api, caplog, method, listing, topic, rows_key, stock, future):
    listed(api, listing, STOCK)
    api.session.reply(topic, ok({"account": {}, rows_key: DETAIL_ROWS}))
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        assert getattr(api, method)(STOCK, 0) == []
    assert [r.msg for r in caplog.records] == [{}]


# ---- the summary -----------------------------------------------------------------------

STOCK_SUMMARY = {
    "account": STOCK.dict(),
    "profitloss_sum": [{"code": "2330", "quantity": 1, "pnl": 9000.0}, {"code": "2603", "quantity": 2}],
    "total": {"quantity": 3, "pnl": 8700.0},
}
FUTURES_SUMMARY = {
    "account": FUTURES.dict(),
    "profitloss_sum": [{"code": "TXFL6", "direction": "Sell", "quantity": 1, "pnl": 4000.0}],
    "total": {"quantity": 1, "pnl": 4000.0},
}


@pytest.mark.parametrize("account,reply,row", [(STOCK, STOCK_SUMMARY, StockProfitLossSummary),
                                              (FUTURES, FUTURES_SUMMARY, FutureProfitLossSummary)],
                         ids=["stock", "futures"])
def test_summary_is_filled_by_its_reply(api, account, reply, row):
    api.session.reply(SUMMARY, ok(reply))
    calls = []
    summary = api.list_profit_loss_summary(account, "2026-11-01", "2026-11-20", timeout=0, cb=calls.append)
    assert (summary.status, summary.profitloss_summary, summary.total) == (
        FetchStatus.Fetching, [], ProfitLossTotal())
    assert api.session.last(SUMMARY).payload == {"account": account.dict(), "begin_date": "2026-11-01",
                                                 "end_date": "2026-11-20"}

    api.session.deliver()
    assert calls == [summary]
    assert [type(r) for r in summary.profitloss_summary] == [row] * len(reply["profitloss_sum"])
    assert summary.total == ProfitLossTotal(**reply["total"])
    assert api._reqrep == {} and api._rep_callback_map == {}


def test_blocking_summary_fails_after_sending(api):
    with pytest.raises(AttributeError, match="list_profit_loss_sum_topic"):
        api.list_profit_loss_summary(STOCK, "2026-11-01", "2026-11-20")
    corrid = api.session.last(SUMMARY).corrid
    assert api._reqrep[corrid].status == FetchStatus.Fetching

    # The handler is given the topic held under that name once it exists.
    seen = []
    api.list_profit_loss_sum_topic = "summary-topic"
    api._list_profit_loss_summary_cb = lambda topic, corrid, resp: seen.append(topic)
    api.list_profit_loss_summary(STOCK, "2026-11-01", "2026-11-20")
    assert seen == ["summary-topic"]


def test_summary_is_refused_in_simulation(sim_api, warnings):
    summary = sim_api.list_profit_loss_summary(STOCK, "2026-11-01", "2026-11-20")
    assert (summary.status, summary.profitloss_summary, summary.total) == (
        FetchStatus.Fetched, [], ProfitLossTotal())
    assert warnings == ["Simulation not support list_profit_loss_summary yet"]
    assert sim_api.session.requests == [] and sim_api.session._gen_reqid() == "corr-2"


@pytest.mark.parametrize(
    "reply,error",
    [
        (refused(500, "summary unavailable"), ServiceError),
        (ok({"account": STOCK.dict(), "profitloss_sum": []}), TypeError),  # no total to expand
    ],
    ids=["refused", "without-total"],
)
def test_summary_failures_surface_on_the_reply(api, reply, error):
    api.session.reply(SUMMARY, reply)
    summary = api.list_profit_loss_summary(STOCK, "2026-11-01", "2026-11-20", timeout=0)
    with pytest.raises(error):
        api.session.deliver()
    assert summary.status == FetchStatus.Fetching and api._reqrep == {}
