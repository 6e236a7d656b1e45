"""SolaceAPI's handlers on the messaging thread of a real bus: session events, quotes after an
unsubscription, blocking requests from inside callbacks, callbacks that raise, replies that
overtake their send. (What each handler is given is checked with the fake session.)"""

import contextlib
import os
import threading

import pytest
from loguru import logger

from bus.helpers import Recorder, wait_until
from pymqlink import _core
from quorvex.account import StockAccount
from quorvex.constant import QuoteType, QuoteVersion, Unit
from quorvex.order import Order

from .broker import (
    CLIENT_NAME,
    FOP_TICK,
    FUTURES,
    FUTURES_ACCOUNT,
    PASSWORD,
    PERSON,
    STOCK,
    STOCK_ACCOUNT,
    STOCK_TICK,
    TSMC,
    TXF,
    ok,
)

TICK_TOPIC = "TIC/v1/STK/D/TSE/2330"
FOP_TOPIC = "TIC/v1/FOP/D/TFE/TXFL6"


def test_session_events_reach_the_user_handlers(make_api, broker, bus_name):
    # Which events a lost link brings is the bus's own test; here they reach SolaceAPI's handlers.
    api = make_api(reconnect_retries=1, reconnect_retry_wait=10)
    events, down = Recorder(), Recorder()
    api.set_event_callback(events)
    api.set_session_down_callback(down)
    api.login(PERSON, PASSWORD)
    assert events.wait(1)
    assert events.calls[0][:2] == (0, 0) and events.calls[0][3] == "connected"
    assert bus_name in events.calls[0][2]

    _core._inproc_shutdown(bus_name)
    try:
        assert down.wait(1), [call[3] for call in events.calls]
        assert wait_until(lambda: events.calls[-1][3] == "down")
        assert events.calls[-1][:2] == (1, 3)
    finally:
        _core._inproc_shutdown(bus_name, down=False)


def test_unsubscribe_stops_delivery(api, broker):
    stock, future = Recorder(), Recorder()
    api.set_on_tick_stk_v1_callback(stock)
    api.set_on_tick_fop_v1_callback(future)
    for contract, topic in ((TSMC, TICK_TOPIC), (TXF, FOP_TOPIC)):
        api.subscribe(contract, QuoteType.Tick, version=QuoteVersion.v1)
        assert wait_until(lambda topic=topic: broker.responder.has_subscribers(topic))
    api.unsubscribe(TSMC, QuoteType.Tick, version=QuoteVersion.v1)
    assert wait_until(lambda: not broker.responder.has_subscribers(TICK_TOPIC))
    broker.responder.publish(TICK_TOPIC, {"content": STOCK_TICK})
    broker.responder.publish(FOP_TOPIC, {"content": FOP_TICK})
    assert future.wait()  # delivered in order: the stock tick, had it come, would be here by now
    assert stock.calls == []
    ((_exchange, tick),) = future.calls
    assert tick.to_content() == FOP_TICK and threading.get_ident() not in future.threads


def via_quote(api, broker, callback):
    api.set_on_tick_stk_v1_callback(lambda exchange, tick: callback())
    api.subscribe(TSMC, QuoteType.Tick, version=QuoteVersion.v1)
    assert wait_until(lambda: broker.responder.has_subscribers(TICK_TOPIC))
    return lambda: broker.responder.publish(TICK_TOPIC, {"content": STOCK_TICK})


def via_order_report(api, broker, callback):
    api.set_order_callback(lambda state, msg: callback())
    return lambda: broker.responder.send_p2p(CLIENT_NAME, "order/ORDER", {"order": {"id": "ord-1"}})


def via_reply(api, broker, callback):
    broker.answer("portfolio/account_balance", ok(account=STOCK, acc_balance=1.0))
    return lambda: api.account_balance(STOCK_ACCOUNT, timeout=0, cb=lambda balance: callback())


DELIVERIES = pytest.mark.parametrize(
    "deliver", [via_quote, via_order_report, via_reply], ids=["quote", "order-report", "reply"]
)


@pytest.mark.parametrize("timeout", [None, 0])
def test_a_false_timeout_completes_through_the_callback(api, broker, timeout):
    broker.answer("portfolio/account_balance", ok(account=STOCK, acc_balance=1234.0, date="2026-11-25"))
    done = Recorder()
    placeholder = api.account_balance(STOCK_ACCOUNT, timeout=timeout, cb=done)
    assert done.wait() == [(placeholder,)]
    assert placeholder.acc_balance == 1234.0
    assert api._rep_callback_map == {} and api._reqrep == {}


@DELIVERIES
def test_blocking_request_from_a_callback_completes(api, broker, deliver):
    broker.answer("portfolio/margin", ok(account=FUTURES, margins={"equity": 42.0}))
    margins = Recorder()
    deliver(api, broker, lambda: margins(api.margin(FUTURES_ACCOUNT, timeout=2000)))()
    assert margins.wait()
    assert margins.calls[0][0].equity == 42.0


@pytest.fixture
def errors():
    records = []
    sink = logger.add(records.append, level="ERROR", format="{message} {exception}")
    yield records
    logger.remove(sink)


@DELIVERIES
def test_a_raising_callback_does_not_stop_later_deliveries(api, broker, deliver, errors):
    calls = Recorder()

    def callback():
        calls()
        if len(calls.calls) == 1:
            raise RuntimeError("handler failed on purpose")

    trigger = deliver(api, broker, callback)
    trigger()
    trigger()
    assert calls.wait(2)
    assert wait_until(lambda: any("handler failed on purpose" in record for record in errors))


def place_each(api, broker, n):
    counter = iter(range(n))
    broker.answer("order/place_order", lambda payload, info: ok(order={"id": f"ord-{next(counter)}"}))
    api.prepare_ca = lambda order: order  # signing is not what this is about
    return lambda cb: api.place_order(
        TSMC, Order(action="Buy", price=580.0, quantity=1, account=STOCK_ACCOUNT), timeout=0, cb=cb
    )


def list_positions_each(api, broker, n):
    accounts = iter(StockAccount(person_id=PERSON, broker_id="9A95", account_id=f"{i:07d}") for i in range(n))
    broker.answer(
        "portfolio/position_unit", lambda payload, info: ok(account=payload["account"], positions=[])
    )
    return lambda cb: api.list_positions(next(accounts), Unit.Common, timeout=0, cb=cb)


@pytest.fixture
def one_cpu(api, broker):
    """Every thread of the process (the api's and the broker's included) on one CPU, so that a
    messaging thread woken by a send gets to run as soon as the sender lets go of the interpreter
    lock, instead of only now and then."""
    if not hasattr(os, "sched_setaffinity"):
        pytest.skip("needs CPU affinity (Linux)")
    threads = [int(tid) for tid in os.listdir("/proc/self/task")]
    before = {tid: os.sched_getaffinity(tid) for tid in threads}
    for tid in threads:
        os.sched_setaffinity(tid, {min(before[threading.get_native_id()])})
    yield
    for tid in os.listdir("/proc/self/task"):
        with contextlib.suppress(OSError):  # a thread that has ended meanwhile
            os.sched_setaffinity(int(tid), before.get(int(tid), before[threading.get_native_id()]))


class Outcomes:
    """Counts the replies that reach the caller's callback and the errors logged meanwhile."""

    def __init__(self):
        self.delivered, self.errors = 0, []
        self._changed = threading.Condition()

    def __call__(self, result):
        with self._changed:
            self.delivered += 1
            self._changed.notify_all()

    def log(self, message):
        with self._changed:
            self.errors.append(message)
            self._changed.notify_all()

    def wait(self, count):
        with self._changed:
            return self._changed.wait_for(lambda: self.delivered + len(self.errors) >= count, timeout=2)


@pytest.mark.parametrize("sender", [place_each, list_positions_each], ids=["place_order", "list_positions"])
def test_non_blocking_reply_never_overtakes_the_store(api, broker, one_cpu, sender):
    rounds = 1000  # the reply mostly overtakes within the first few, now and then only after dozens
    send, outcomes = sender(api, broker, rounds), Outcomes()
    sink = logger.add(outcomes.log, level="ERROR", format="{message}")
    try:
        for sent in range(1, rounds + 1):
            send(outcomes)
            assert outcomes.wait(sent)
            assert outcomes.errors == [], f"reply {sent} of {rounds} was lost"
    finally:
        logger.remove(sink)
