"""A logged-in SolaceAPI on an embedded paper broker whose market opens on a chosen moment."""

import contextlib
import uuid
from typing import Any, Iterator

from quorvex.backend.solace.api import SolaceAPI
from quorvex.contracts import Future, Stock
from quorvex.paper import DEMO

TRADING_DAY = "2026-01-05"  # a Monday
PREVIOUS_DAY = "2026-01-02"  # the Friday before
# The front index future of that day: January 2026 delivers on the 21st.
FRONT_FUTURE = "TXFA6"

TSMC = Stock(code="2330", exchange="TSE")
HARBOR = Stock(code="2317", exchange="TSE")
INDEX_FUTURE = Future(code=FRONT_FUTURE, exchange="TAIFEX")


def paper_api(market_start: str, clock_speed: float, simulation: bool = True) -> SolaceAPI:
    """A session on a broker of its own whose market time starts at `market_start`."""
    host = f"paper://feed-{uuid.uuid4().hex[:8]}?clock_speed={clock_speed}&market_start={market_start}"
    api = SolaceAPI(host, "vpn", "feed-tests", "unused", simulation)
    api.login(DEMO.person_id, DEMO.password)
    return api


@contextlib.contextmanager
def subscribed(api: SolaceAPI, contract: Any, quote_type: Any, odd: bool, version: Any) -> Iterator[None]:
    """Subscribed to one topic for the duration of a block."""
    api.subscribe(contract, quote_type, odd, version)
    try:
        yield
    finally:
        api.unsubscribe(contract, quote_type, odd, version)
