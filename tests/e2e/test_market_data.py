"""Real-time quotes published by the broker reach the typed handlers; history queries."""

import datetime
import threading

import pytest

from bus.helpers import Recorder, wait_until
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1
from quorvex.constant import Exchange, QuoteType, QuoteVersion, TicksQueryType

from .broker import FOP_TICK, STOCK_TICK, TOKEN, TSMC, TXF, ok

# Every route is checked against the fake session (tests/market_data); over the bus, a day
# session stock tick and a night session futures tick (the subscription's wildcard session).
# fmt: off
ROUTES = [
    # contract, quote type, odd lot, topic published by the feed, content, handler stem, record, exchange
    (TSMC, QuoteType.Tick, False, "TIC/v1/STK/D/TSE/2330", STOCK_TICK,
     "tick_stk_v1", TickSTKv1, Exchange.TSE),
    (TXF, QuoteType.Tick, False, "TIC/v1/FOP/N/TFE/TXFL6", FOP_TICK,
     "tick_fop_v1", TickFOPv1, Exchange.TAIFEX),
]
# fmt: on


def subscribe(api, broker, contract, quote_type, odd_lot, topic):
    """Subscribes and waits until the broker sees a subscriber for `topic`."""
    api.subscribe(contract, quote_type, intraday_odd=odd_lot, version=QuoteVersion.v1)
    assert wait_until(lambda: broker.responder.has_subscribers(topic))


@pytest.mark.parametrize(
    "contract, quote_type, odd_lot, topic, content, stem, record, exchange",
    ROUTES,
    ids=[route[3] for route in ROUTES],
)
def test_published_quote_reaches_its_typed_handler(
    api, broker, contract, quote_type, odd_lot, topic, content, stem, record, exchange
):
    handler = Recorder()
    getattr(api, f"set_on_{stem}_callback")(handler)
    subscribe(api, broker, contract, quote_type, odd_lot, topic)
    broker.responder.publish(topic, {"content": content})
    assert handler.wait()
    ((got_exchange, quote),) = handler.calls
    assert (got_exchange, type(quote), quote.code) == (exchange, record, content[0])
    assert quote.to_content() == content
    assert quote.datetime == datetime.datetime(2024, 1, 2, 9, 0, 1, 500000)
    assert getattr(quote, "intraday_odd", odd_lot) is odd_lot
    assert threading.get_ident() not in handler.threads


def test_unsubscribe_stops_delivery(api, broker):
    stock, future = Recorder(), Recorder()
    api.set_on_tick_stk_v1_callback(stock)
    api.set_on_tick_fop_v1_callback(future)
    subscribe(api, broker, TSMC, QuoteType.Tick, False, "TIC/v1/STK/D/TSE/2330")
    subscribe(api, broker, TXF, QuoteType.Tick, False, "TIC/v1/FOP/D/TFE/TXFL6")
    api.unsubscribe(TSMC, QuoteType.Tick, version=QuoteVersion.v1)
    assert wait_until(lambda: not broker.responder.has_subscribers("TIC/v1/STK/D/TSE/2330"))
    broker.responder.publish("TIC/v1/STK/D/TSE/2330", {"content": STOCK_TICK})
    broker.responder.publish("TIC/v1/FOP/D/TFE/TXFL6", {"content": FOP_TICK})
    assert future.wait()  # delivered in order: the stock tick, had it come, would be here by now
    assert stock.calls == []


TICKS = {
    "ts": [1704157201500000000, 1704157202000000000],
    "close": [595.0, 596.0],
    "volume": [3, 1],
    "bid_price": [594.0, 595.0],
    "bid_volume": [10, 2],
    "ask_price": [595.0, 596.0],
    "ask_volume": [5, 7],
    "tick_type": [1, 1],
}


def test_history_round_trip(api, broker, query):
    broker.answer("data/ticks", ok(**TICKS))
    history = query(api.ticks, TSMC, date="2024-01-02", query_type=TicksQueryType.LastCount, last_cnt=2)
    assert history.dict() == TICKS
    request = broker.last("data/ticks")
    assert request.token == TOKEN
    sent = {"date": "2024-01-02", "query_type": "LastCount", "time_range": None, "last_cnt": 2}
    assert request.payload == dict({"contract": TSMC.dict()}, **sent)
