"""Cancelling and modifying a placed order: what is sent, and what each mode leaves in the maps."""

import logging

import pytest

from conftest import ok, refused
from orders_support import order_api, trade
from quorvex.constant import Status
from quorvex.error import ServiceError

CANCEL = "api/v1/order/cancel_order"
PRICE = "api/v1/order/update_price"
QTY = "api/v1/order/update_qty"


@pytest.fixture
def api(api_module):
    api = order_api(api_module)
    api._trades["ord-1"] = trade()
    return api


@pytest.fixture
def placed(api):
    return api._trades["ord-1"]


# ---------------------------------------------------------------- cancel


@pytest.mark.parametrize("timeout", [5000, 0])
def test_cancel_sends_the_resigned_trade_and_hands_it_back(api, placed, timeout):
    api.session.reply(CANCEL, ok({"detail": "cancel accepted"}))
    seen = []
    assert api.cancel_order(placed, timeout=timeout, cb=seen.append) is placed
    payload = api.session.last(CANCEL).payload
    assert set(payload) == {"contract", "order", "tft"} and payload["order"]["ca"] == "sig-1"
    assert placed.order.ca == "sig-1"
    # The temporary entry and the callback wait under the correlation id in both modes.
    if not timeout:
        assert api._trades["corr-1"] is placed and api._rep_callback_map == {"corr-1": seen.append}
        api.session.deliver()
    assert list(api._trades) == ["ord-1"] and api._rep_callback_map == {}
    assert seen == [placed] and placed.status.msg == "cancel accepted"


def test_cancel_the_exchange_refused_is_recorded_not_raised(api, placed):
    api.session.reply(CANCEL, refused(400, "order already filled", sts_code=74006))
    seen = []
    api.cancel_order(placed, cb=seen.append)
    assert placed.status.status == Status.Failed and placed.status.msg == "order already filled"
    assert seen == [placed] and list(api._trades) == ["ord-1"]


@pytest.mark.parametrize("reply", [refused(400, "bad request", sts_code=1), refused(500, "down")])
def test_other_cancel_refusals_are_logged_and_raised(api, placed, caplog, reply):
    seen = []
    api.session.reply(CANCEL, reply)
    with caplog.at_level(logging.ERROR, logger="quorvex"), pytest.raises(ServiceError):
        api.cancel_order(placed, cb=seen.append)
    detail = reply["response"]["detail"]
    assert "StatusCode: {}, Detail: {}".format(reply["status"]["status_code"], detail) in caplog.text
    assert seen == [] and placed.status.status == Status.Inactive and list(api._trades) == ["ord-1"]


# ---------------------------------------------------------------- modify


@pytest.mark.parametrize(
    "status, price, quantity, sent",
    [
        ({}, 585.0, None, [(PRICE, {"price": 585.0})]),
        ({}, 580.0, None, []),  # the order's price: nothing to change
        ({"modified_price": 582.0}, 580.0, None, [(PRICE, {"price": 580.0})]),
        ({"modified_price": 582.0}, 582.0, None, []),  # the modified price is the current one
        ({}, None, 3, [(QTY, {"quantity": 3})]),
        ({"cancel_quantity": 1}, None, 3, []),  # only 2 remain
        ({}, 0, 0, []),  # zero counts as not given
        ({}, 585.0, 1, [(PRICE, {"price": 585.0}), (QTY, {"price": 585.0, "quantity": 1})]),
    ],
)
def test_modify_sends_what_changes(api, status, price, quantity, sent):
    got = []

    def record(request):  # the payload as it was when sent: one object serves both requests
        got.append(
            (request.topic, {k: request.payload[k] for k in ("price", "quantity") if k in request.payload})
        )
        return ok()

    api.session.reply(PRICE, record)
    api.session.reply(QTY, record)
    placed = api._trades["ord-1"] = trade(**status)
    assert api.update_order(placed, price=price, quantity=quantity) is placed
    assert got == sent and list(api._trades) == ["ord-1"] and api._rep_callback_map == {}


def test_blocking_modify_with_callback_takes_back_each_entry(api, placed):
    seen = []
    api.update_order(placed, price=590.0, quantity=1, cb=seen.append)
    # Blocking registers nothing, so the handler finds no callback and calls nothing.
    assert seen == [] and list(api._trades) == ["ord-1"] and api._rep_callback_map == {}


@pytest.mark.parametrize("with_cb", [True, False])
def test_non_blocking_modify_keeps_entries_for_unsent_steps(api, placed, with_cb):
    seen = []
    cb = seen.append if with_cb else None
    api.update_order(placed, price=590.0, timeout=0, cb=cb)
    assert [r.corrid for r in api.session.requests] == ["corr-1"]
    assert api._rep_callback_map == {"corr-1": cb, "corr-2": cb}
    api.session.deliver()
    # The handler removes the trade's temporary entry only when there is a callback to give it to.
    expected = ["ord-1", "corr-2"] if with_cb else ["ord-1", "corr-1", "corr-2"]
    assert list(api._trades) == expected and api._rep_callback_map == {"corr-2": cb}
    assert seen == ([placed] if with_cb else [])


def test_modify_refusal_is_raised(api, placed):
    api.session.reply(PRICE, refused(400, "price out of limits"))
    with pytest.raises(ServiceError, match="price out of limits"):
        api.update_order(placed, price=999.0)
