"""Live quotes from the paper broker, through SolaceAPI's router, on every topic family."""

import datetime

import pytest

from bus.helpers import Recorder
from quorvex.backend.solace.bidask import BidAskFOPv1, BidAskSTKv1
from quorvex.backend.solace.quote import QuoteSTKv1
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1
from quorvex.constant import Exchange, QuoteType, QuoteVersion

from .feed_support import INDEX_FUTURE, TRADING_DAY, TSMC, paper_api, subscribed

DAY = datetime.date.fromisoformat(TRADING_DAY)


@pytest.fixture(scope="module")
def market():
    """A market open at 09:30 running 60 times faster than real time: a minute a second."""
    api = paper_api(TRADING_DAY + "T09:30", 60)
    yield api
    api.logout()


TYPED = [
    # quote type, odd lots, contract, handler attribute setter, record type, exchange
    ("tick", False, TSMC, "set_on_tick_stk_v1_callback", TickSTKv1, Exchange.TSE),
    ("bidask", False, TSMC, "set_on_bidask_stk_v1_callback", BidAskSTKv1, Exchange.TSE),
    ("quote", False, TSMC, "set_on_quote_stk_v1_callback", QuoteSTKv1, Exchange.TSE),
    ("tick", True, TSMC, "set_on_tick_stk_v1_callback", TickSTKv1, Exchange.TSE),
    ("bidask", True, TSMC, "set_on_bidask_stk_v1_callback", BidAskSTKv1, Exchange.TSE),
    ("tick", False, INDEX_FUTURE, "set_on_tick_fop_v1_callback", TickFOPv1, Exchange.TAIFEX),
    ("bidask", False, INDEX_FUTURE, "set_on_bidask_fop_v1_callback", BidAskFOPv1, Exchange.TAIFEX),
]


@pytest.mark.parametrize(
    "quote_type, odd, contract, setter, record, exchange",
    TYPED,
    ids=["tick", "bidask", "quote", "odd-tick", "odd-bidask", "fop-tick", "fop-bidask"],
)
def test_typed_records_reach_their_handlers(market, quote_type, odd, contract, setter, record, exchange):
    received = Recorder()
    getattr(market, setter)(received)
    with subscribed(market, contract, QuoteType(quote_type), odd, QuoteVersion.v1):
        calls = received.wait(2)
    for got_exchange, got in calls:
        assert got_exchange == exchange
        assert isinstance(got, record)
        assert got.code == contract.code
        assert got.datetime.date() == DAY
        if hasattr(got, "intraday_odd"):
            assert got.intraday_odd is odd
        if hasattr(got, "bid_price"):
            # The best bid lies below the best ask whenever both sides are there.
            assert got.bid_price[0] < got.ask_price[0] or 0.0 in (got.bid_price[0], got.ask_price[0])
        if hasattr(got, "close"):
            assert got.low <= got.close <= got.high


@pytest.mark.parametrize(
    "odd, topic_end, keys",
    [
        (False, "/TSE/2330", {"Code", "Date", "Time", "Close", "TotalVolume", "TickType"}),
        (True, "/TSE/2330/ODDLOT", {"code", "datetime", "close", "volume", "tick_type"}),
    ],
    ids=["board", "odd-lots"],
)
def test_untyped_messages_reach_the_quote_callback(market, odd, topic_end, keys):
    received = Recorder()
    market.set_quote_callback(received)
    with subscribed(market, TSMC, QuoteType.Tick, odd, QuoteVersion.v0):
        calls = received.wait(1)
    topic, message = calls[0]
    assert topic.startswith("TIC/v0/") and topic.endswith(topic_end)
    assert keys <= set(message)
