"""The trace log: a login record before the first order report, then at most one order per second."""

import types

import pytest

from conftest import ok
from quorvex.account import StockAccount
from quorvex.constant import Action, OrderType, PriceType, Status
from quorvex.contracts import Stock
from quorvex.order import Order, OrderStatus, Trade

START = 1_700_000_000.0


@pytest.fixture
def clock(api_module, monkeypatch):
    now = [START]
    monkeypatch.setattr(api_module, "time", types.SimpleNamespace(time=lambda: now[0]))
    return now


@pytest.fixture
def traced(api):
    api._person_id, api._public_ip = "A123456789", "10.1.2.3"
    return api


def trade(status=Status.Submitted):
    account = StockAccount(broker_id="9A95", account_id="0001", person_id="A123456789")
    return Trade(
        contract=Stock(exchange="TSE", code="2330"),
        order=Order(
            action=Action.Sell,
            price=580.0,
            quantity=2,
            account=account,
            price_type=PriceType.MKT,
            order_type=OrderType.IOC,
        ),
        status=OrderStatus(status=status),
    )


def sent(api):
    return [r.payload for r in api.session.requests if r.topic == api.trace_log_topic]


def test_first_report_is_preceded_by_the_login_record(traced, clock):
    assert traced.trace_log(trade()) is None
    login, order = sent(traced)
    assert login == {
        "person_id": "A123456789",
        "account": None,
        "ip": "10.1.2.3",
        "action": "login",
        "func": "login",
        "func_content": {},
        "result": "S",
    }
    assert order["action"] == order["func"] == "place_order"
    assert order["account"]["account_id"] == "0001" and order["ip"] == "10.1.2.3"
    assert list(order["func_content"].items()) == [
        ("code", "2330"),
        ("action", "Sell"),
        ("price", 580.0),
        ("quantity", 2),
        ("price_type", "MKT"),
        ("order_type", "IOC"),
    ]
    assert traced._prev_trace_log_ts == START
    assert traced.session.last().topic == "api/v1/auth/trace_log"


def test_orders_within_a_second_of_the_last_report_are_dropped(traced, clock):
    reported = []
    for offset in (0.0, 0.5, 0.999, 1.2, 1.7, 2.2):
        clock[0] = START + offset
        before = len(sent(traced))
        traced.trace_log(trade())
        if len(sent(traced)) > before:
            reported.append(offset)
    assert reported == [0.0, 1.2, 2.2]
    assert [p["action"] for p in sent(traced)] == ["login", "place_order", "place_order", "place_order"]


@pytest.mark.parametrize("status", list(Status))
def test_result_is_F_only_for_failed_orders(traced, clock, status):
    traced.trace_log(trade(status))
    assert sent(traced)[-1]["result"] == ("F" if status == Status.Failed else "S")


@pytest.mark.parametrize("reply, success", [(ok({"success": True}), True), (ok(), False), ({}, False)])
def test__trace_log_returns_the_services_success_flag(traced, reply, success):
    from quorvex.data import TraceLog

    traced.session.reply(traced.trace_log_topic, reply)
    record = TraceLog(action="login", func="login")
    assert traced._trace_log(record) is success
    assert traced.session.last().payload == record.dict()
