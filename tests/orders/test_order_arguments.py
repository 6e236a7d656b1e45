"""Wrong arguments are refused before anything is signed, stored or sent."""

import pytest

from orders_support import STOCK_ACCOUNT, TSMC, TXF, order, order_api, trade


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
