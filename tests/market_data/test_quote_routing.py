"""Quote subscription and the router from published messages to typed handlers."""

import inspect

import pytest

from market_data_fixtures import (  # noqa: F401  (fixtures)
    futures_bidask_content,
    futures_tick_content,
    logged_errors,
    stock_bidask_content,
    stock_quote_content,
    stock_tick_content,
)
from quorvex.backend.solace.bidask import BidAskFOPv1, BidAskSTKv1
from quorvex.backend.solace.quote import QuoteSTKv1
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1
from quorvex.backend.solace.utils import intraday_odd_quo_convert, intraday_odd_tic_convert
from quorvex.constant import Exchange, QuoteType, QuoteVersion
from quorvex.contracts import Stock

HANDLERS = [
    "on_tick_stk_v1_callback",
    "on_tick_fop_v1_callback",
    "on_bidask_stk_v1_callback",
    "on_bidask_fop_v1_callback",
    "on_quote_stk_v1_callback",
    "on_quote_callback",
]


@pytest.fixture
def calls(api):
    """Replaces every quote handler with a recorder; the list gets (handler name, args)."""
    received = []
    for name in HANDLERS:
        setattr(api, name, lambda *args, _name=name: received.append((_name, args)))
    return received


# topic, content, record constructor, handler stem, exchange
@pytest.mark.parametrize(
    "topic, content, build, handler, exchange",
    [
        ("TIC/v1/STK/D/TSE/2330", stock_tick_content, TickSTKv1.from_content, "tick_stk", Exchange.TSE),
        ("TIC/v1/FOP/N/TFE/TXFL6", futures_tick_content, TickFOPv1.from_content, "tick_fop", Exchange.TAIFEX),
        ("QUO/v1/STK/D/OTC/6488", stock_bidask_content, BidAskSTKv1.from_content, "bidask_stk", Exchange.OTC),
        (
            "QUO/v1/FOP/D/TFE/TXFL6",
            futures_bidask_content,
            BidAskFOPv1.from_content,
            "bidask_fop",
            Exchange.TAIFEX,
        ),
        ("TIC/v1/ODD/D/TSE/2330", stock_tick_content, TickSTKv1.from_content_odd, "tick_stk", Exchange.TSE),
        (
            "QUO/v1/ODD/D/OES/2330",
            stock_bidask_content,
            BidAskSTKv1.from_content_odd,
            "bidask_stk",
            Exchange.OES,
        ),
        ("QUO/v2/STK/D/TSE/2330", stock_quote_content, QuoteSTKv1.from_content, "quote_stk", Exchange.TSE),
        # Futures and options report TAIFEX whatever the topic says, however many components it has.
        ("TIC/v1/FOP/D/TSE/TXF/x", futures_tick_content, TickFOPv1.from_content, "tick_fop", Exchange.TAIFEX),
    ],
)
def test_typed_families_reach_their_handler(api, calls, topic, content, build, handler, exchange):
    assert api.on_msg_wrap(topic, {"content": content()}) is None
    assert len(calls) == 1
    name, (got_exchange, record) = calls[0]
    assert name == "on_{}_v1_callback".format(handler)
    assert got_exchange is exchange
    assert type(record) is type(build(*content())) and record == build(*content())


def test_legacy_odd_lot_messages_are_converted(api, calls):
    tick = {"Code": "2330", "Date": "2024/01/02", "Time": "09:00:01.500000", "Close": 595.0, "Volume": 37}
    book = {
        "Code": "2330",
        "Date": "2024/01/02",
        "Time": "09:00:01",
        "BidPrice": [595.0],
        "BidVolume": [7],
        "AskPrice": [596.0],
        "AskVolume": [9],
    }
    api.on_msg_wrap("TIC/v0/ODD/D/TSE/2330/ODDLOT", tick)
    api.on_msg_wrap("QUO/v0/ODD/D/TSE/2330/ODDLOT", book)
    # The conversions themselves are the helpers' tests (tests/records).
    assert calls == [
        ("on_quote_callback", ("TIC/v0/ODD/D/TSE/2330/ODDLOT", intraday_odd_tic_convert(tick))),
        ("on_quote_callback", ("QUO/v0/ODD/D/TSE/2330/ODDLOT", intraday_odd_quo_convert(book))),
    ]


@pytest.mark.parametrize(
    "topic",
    [
        "TIC/v0/STK/D/TSE/2330",
        "QUO/v0/FOP/D/TFE/TXFL6",
        "TIC/v2/STK/D/TSE/2330",
        "TIC/v1/IND/D/TSE/001",
        "NEWS/ODDLOT",
        "TICK",
    ],
)
def test_other_topics_reach_the_untyped_handler_unchanged(api, calls, api_module, monkeypatch, topic):
    monkeypatch.setattr(api_module, "intraday_odd_tic_convert", pytest.fail)
    message = {"content": [1, 2, 3]}
    api.on_msg_wrap(topic, message)
    assert calls == [("on_quote_callback", (topic, message))]
    assert calls[0][1][1] is message


@pytest.mark.parametrize(
    "topic, content, logged",
    [
        ("TIC/v1/STK/D/TSE", stock_tick_content(), "ValueError: need more than 5 values to unpack"),
        ("TIC/v1/STK", stock_tick_content(), "ValueError: need more than 3 values to unpack"),
        (
            "QUO/v1/ODD/D/TSE/2330/x",
            stock_bidask_content(),
            "ValueError: too many values to unpack (expected 6)",
        ),
        ("QUO/v2/STK/D/NYSE/2330", stock_quote_content(), "'NYSE' is not a valid Exchange"),
        ("TIC/v1/STK/D/TSE/2330", None, "KeyError: 'content'"),
        ("TIC/v1/STK/D/TSE/2330", 7, "TypeError: a quote message's content must be a list"),
        ("TIC/v1/FOP/D/TFE/TXFL6", stock_tick_content(), "TickFOPv1 expects 19 content elements"),
        (b"TIC/v1/STK/D/TSE/2330", stock_tick_content(), "a quote topic must be str, got bytes"),
    ],
)
def test_bad_messages_are_dropped_with_a_logged_error(api, calls, logged_errors, topic, content, logged):  # noqa: F811
    message = {"contents": []} if content is None else {"content": content}
    assert api.on_msg_wrap(topic, message) is None
    assert calls == []
    assert len(logged_errors) == 1 and logged in logged_errors[0]
    # The next good message still goes through.
    api.on_msg_wrap("TIC/v1/STK/D/TSE/2330", {"content": stock_tick_content()})
    assert [name for name, _ in calls] == ["on_tick_stk_v1_callback"]


SETTERS = [
    ("set_on_tick_stk_v1_callback", "TIC/v1/STK/D/TSE/2330", stock_tick_content),
    ("set_on_tick_fop_v1_callback", "TIC/v1/FOP/D/TFE/TXFL6", futures_tick_content),
    ("set_on_bidask_stk_v1_callback", "QUO/v1/STK/D/TSE/2330", stock_bidask_content),
    ("set_on_bidask_fop_v1_callback", "QUO/v1/FOP/D/TFE/TXFL6", futures_bidask_content),
    ("set_on_quote_stk_v1_callback", "QUO/v2/STK/D/TSE/2330", stock_quote_content),
]


@pytest.mark.parametrize("setter, topic, content", SETTERS)
def test_bound_handlers_get_the_context_of_the_setter_call(api, setter, topic, content):
    received = []
    first, later = {"strategy": "first"}, {"strategy": "later"}
    api.set_context(first)
    assert getattr(api, setter)(lambda *args: received.append(args), bind=True) is None
    api.set_context(later)
    api.on_msg_wrap(topic, {"content": content()})
    ((context, _exchange, record),) = received
    assert context is first and record.code in ("2330", "TXFL6")


TSMC = Stock(exchange="TSE", code="2330")


def test_subscribe_and_unsubscribe_by_topic(api):
    signature = inspect.signature(api.subscribe)
    assert [p.default for p in list(signature.parameters.values())[1:]] == [
        QuoteType.Tick,
        False,
        QuoteVersion.v0,
    ]
    assert inspect.signature(api.unsubscribe) == signature

    assert api.subscribe(TSMC) is None
    api.subscribe(TSMC, QuoteType.BidAsk, True, QuoteVersion.v1)
    api.subscribe(TSMC, quote_type=QuoteType.Quote, version=QuoteVersion.v1)
    assert api.session.subscriptions == [
        "TIC/v0/STK/*/TSE/2330",
        "QUO/v1/ODD/*/TSE/2330",
        "QUO/v2/STK/*/TSE/2330",
    ]
    assert api.unsubscribe(TSMC, QuoteType.BidAsk, True, QuoteVersion.v1) is None
    assert api.session.subscriptions == ["TIC/v0/STK/*/TSE/2330", "QUO/v2/STK/*/TSE/2330"]


def test_a_subscription_without_a_topic_sends_nothing(api):
    with pytest.raises(ValueError, match="intraday odd lots are traded in stocks only"):
        api.subscribe(
            Stock(exchange="TSE", code="2330").model_copy(update={"security_type": "FUT"}),
            QuoteType.Tick,
            True,
        )
    assert api.session.subscriptions == []
