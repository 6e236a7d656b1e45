"""Wrong arguments are refused before anything is signed, stored or sent."""

import pytest

from conftest import refused
from orders_support import STOCK_ACCOUNT, TSMC, TXF, order, order_api, trade
from quorvex.constant import Status


@pytest.fixture
def api(api_module):
    return order_api(api_module)


@pytest.mark.parametrize(
    "method, args, error, message",
    [
        ("place_order", ("2330", order()), TypeError, "place_order: contract must be a contract record"),
        (
            "place_order",
            (TSMC, {"action": "Buy"}),
            TypeError,
            "place_order: order must be an Order, got dict",
        ),
        ("place_order", (TSMC, order(), 0, "print"), TypeError, "place_order: cb must be a callable"),
        (
            "cancel_order",
            ({"order": {}},),
            TypeError,
            "cancel_order: trade must be the Trade that place_order returned",
        ),
        ("update_order", (trade(), "585"), TypeError, "update_order: price must be a number"),
        ("update_order", (trade(), True), TypeError, "update_order: price must be a number"),
        ("update_order", (trade(), -1.0), ValueError, "price must be a finite number not below 0"),
        ("update_order", (trade(), float("nan")), ValueError, "price must be a finite number not below 0"),
        ("update_order", (trade(), None, 1.5), TypeError, "quantity must be a whole number"),
        ("update_order", (trade(), None, -2), ValueError, "quantity is the number of units to take off"),
        (
            "update_status",
            ({"account_id": "1"},),
            TypeError,
            "update_status: account must be an account record",
        ),
        ("update_status", (STOCK_ACCOUNT, 123), TypeError, "update_status: seqno must be text"),
        ("place_comboorder", (TXF, order()), TypeError, "combocontract must be a ComboContract, got Future"),
        (
            "cancel_comboorder",
            (trade(),),
            TypeError,
            "combotrade must be the ComboTrade that place_comboorder returned",
        ),
    ],
)
def test_bad_arguments_are_refused_first(api, method, args, error, message):
    with pytest.raises(error, match=message):
        getattr(api, method)(*args)
    assert api.session.requests == [] and api.prepare_ca.signed == []
    assert api._trades == {} and api._combotrades == {} and api._rep_callback_map == {}


HANDLERS = [
    "_place_order_cb",
    "_cancel_order_cb",
    "_update_order_cb",
    "_update_status_cb",
    "place_comboorder_cb",
    "_cancel_comboorder_cb",
    "_update_combostatus_cb",
]


@pytest.mark.parametrize("handler", HANDLERS)
@pytest.mark.parametrize(
    "args, message",
    [
        ((1, "c", {}), "Argument 'topic' has incorrect type (expected str, got int)"),
        (("t", b"c", {}), "Argument 'corrid' has incorrect type (expected str, got bytes)"),
        (("t", "c", []), "Argument 'resp' has incorrect type (expected dict, got list)"),
    ],
)
def test_reply_handlers_check_their_argument_types_first(api, handler, args, message):
    api._rep_callback_map["c"] = print
    with pytest.raises(TypeError) as info:
        getattr(api, handler)(*args)
    assert str(info.value) == message and api._rep_callback_map == {"c": print}


class _OnlyInactive:
    Inactive = Status.Inactive


def _place_refused(api):
    api.session.reply("api/v1/order/place_order", refused(500))
    api.place_order(TSMC, order())


def _cancel_recorded_as_failed(api):
    api.session.reply("api/v1/order/cancel_order", refused(400, sts_code=74006))
    api.cancel_order(trade())


@pytest.mark.parametrize(
    "status_enum, call, missing",
    [
        (type("NoMembers", (), {}), lambda api: api.place_order(TSMC, order()), "Inactive"),
        (_OnlyInactive, _place_refused, "Failed"),
        (type("NoMembers", (), {}), _cancel_recorded_as_failed, "Failed"),
    ],
)
def test_a_status_enumeration_without_the_member_is_an_error_not_a_crash(
    api, api_module, monkeypatch, status_enum, call, missing
):
    monkeypatch.setattr(api_module, "Status", status_enum)
    with pytest.raises(AttributeError, match=missing):
        call(api)
