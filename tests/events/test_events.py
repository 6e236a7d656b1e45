"""Session events, message entry points and the order-report stream."""

import pytest

from quorvex.constant import OrderState


@pytest.fixture
def caught(api_module, monkeypatch):
    """Counts the logging library's catchers and the errors they log."""
    from loguru import logger

    errors = []
    sink = logger.add(lambda m: errors.append(m), level="ERROR", format="{message}")
    yield errors
    logger.remove(sink)


def boom(*args):
    raise ValueError("handler failed")


@pytest.mark.parametrize(
    "wrap,attr,args",
    [
        ("on_event_wrap", "on_event_callback", (1, 2, "info", "event")),
        ("on_session_down_wrap", "on_session_down_callback", ()),
        ("on_msg_wrap", "on_quote_wrap", ("TIC/v1/STK/x/TSE/2330", {"content": []})),
    ],
)
def test_wrap_catches_logs_and_returns_none(api, caught, wrap, attr, args):
    setattr(api, attr, boom)
    assert getattr(api, wrap)(*args) is None
    assert len(caught) == 1 and "handler failed" in caught[0].record["exception"].value.args[0]


@pytest.mark.parametrize(
    "wrap,attr",
    [("on_event_wrap", "on_event_callback"), ("on_session_down_wrap", "on_session_down_callback")],
)
def test_wrap_catches_a_missing_handler_too(api, caught, wrap, attr):
    delattr(api, attr)
    args = (1, 2, "info", "event") if wrap == "on_event_wrap" else ()
    assert getattr(api, wrap)(*args) is None
    assert len(caught) == 1 and caught[0].record["exception"].type is AttributeError


def test_wrap_passes_arguments_through(api):
    got = []
    api.on_event_callback = lambda *a: got.append(a)
    api.on_event_wrap(0, 7, "info", "ev")
    assert got == [(0, 7, "info", "ev")]


def test_msg_wrap_routes_to_the_quote_router_not_the_stored_callback(api):
    routed, stored = [], []
    api.on_quote_wrap = lambda topic, msg: routed.append(topic)
    api.set_msg_callback(stored.append)
    api.on_msg_wrap("A/B", {})
    assert routed == ["A/B"] and stored == []
    assert api.on_msg_callback == stored.append


@pytest.mark.parametrize(
    "setter,session_method,wrap",
    [
        ("set_event_callback", "set_event_callback", "on_event_wrap"),
        ("set_session_down_callback", "set_session_down_callback", "on_session_down_wrap"),
        ("set_order_callback", "set_p2p_callback", "on_p2p_wrap"),
    ],
)
def test_setters_store_then_register_the_wrap(api, setter, session_method, wrap):
    api.session.calls.clear()
    getattr(api, setter)(print)
    assert api.session.calls == [(session_method, getattr(api, wrap))]


@pytest.mark.parametrize(
    "decorator,attr",
    [("on_event", "on_event_callback"), ("on_order", "on_order_callback"), ("on_quote", "on_quote_callback")],
)
def test_decorators_return_the_function(api, decorator, attr):
    @getattr(api, decorator)
    def handler(*args):
        return args

    assert getattr(api, attr) is handler
    assert handler(1) == (1,)


class TestOrderStream:
    @pytest.fixture
    def reports(self, api):
        got = []
        api.set_order_callback(lambda state, msg: got.append((state, msg)))
        return got

    @pytest.mark.parametrize(
        "topic,state",
        [
            ("topic/TFT_ORDER", OrderState.TFTOrder),
            ("topic/TFT_DEAL", OrderState.TFTDeal),
            ("topic/FORDER", OrderState.FOrder),
            ("topic/FDEAL", OrderState.FDeal),
            ("topic/ORDER", OrderState.Order),
            ("topic/DEAL", OrderState.Deal),
            ("xTFT_ORDER", OrderState.TFTOrder),
        ],
    )
    def test_suffix_picks_the_first_matching_word(self, api, reports, topic, state):
        api.on_p2p_wrap(topic, {"order": {}})
        assert reports == [(state, {"order": {}})]

    @pytest.mark.parametrize("topic", ["forder", "topic/ORDERS", "DEAL/x", ""])
    def test_unknown_words_are_ignored(self, api, reports, topic):
        api.on_p2p_wrap(topic, {})
        assert reports == []

    def test_forder_sets_ordno_before_the_callback(self, api):
        class Box:
            pass

        trade = Box()
        trade.order = Box()
        trade.order.ordno = ""
        api._trades["ORD1"] = trade
        seen = []
        api.set_order_callback(lambda state, msg: seen.append(trade.order.ordno))
        api.on_p2p_wrap("x/FORDER", {"order": {"id": "ORD1", "ordno": "W0001"}})
        assert seen == ["W0001"]
        api.on_p2p_wrap("x/FORDER", {"order": {"id": "ORD1"}})
        assert trade.order.ordno == ""

    def test_forder_for_unknown_order_is_skipped(self, api, reports):
        api.on_p2p_wrap("x/FORDER", {"order": {"id": "nope", "ordno": "1"}})
        assert len(reports) == 1

    def test_callback_errors_propagate(self, api):
        api.set_order_callback(boom)
        with pytest.raises(ValueError, match="handler failed"):
            api.on_p2p_wrap("x/DEAL", {})
