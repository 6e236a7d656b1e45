"""Combination orders: their own book and topics, in both modes, and refused in simulation."""

import pytest

from conftest import ok, refused
from orders_support import FUTURES_ACCOUNT, SPREAD, TXF, local_time, order, order_api
from quorvex.constant import Status
from quorvex.contracts import ComboContract
from quorvex.error import ServiceError
from quorvex.order import ComboStatus, ComboTrade

PLACE = "api/v1/order/place_comboorder"
CANCEL = "api/v1/order/cancel_comboorder"
REFRESH = "api/v1/order/update_combostatus"
ACCEPTED = ok({"order": {"id": "cmb-1"}, "status": {"status": "Submitted", "order_ts": 1763600000}})


def spread_order():
    return order(price=12.0, quantity=1, account=FUTURES_ACCOUNT)


@pytest.fixture
def api(api_module):
    return order_api(api_module)


@pytest.fixture
def placed(api):
    api.session.reply(PLACE, ACCEPTED)
    return api.place_comboorder(SPREAD, spread_order())


def test_placement_rekeys_the_combination_trade(api, placed):
    assert api.session.last(PLACE).payload == {
        "order": dict(spread_order().dict(), ca="sig-1"),
        "combocontract": SPREAD.dict(),
    }
    assert api._combotrades == {"cmb-1": placed} and api.combotrades == [placed] and api._trades == {}
    assert isinstance(placed.status, ComboStatus) and placed.status.status == Status.Submitted
    assert placed.status.order_datetime == local_time(1763600000) and placed.order.id == "cmb-1"


def test_non_blocking_placement_completes_later(api):
    api.session.reply(PLACE, ACCEPTED)
    seen = []
    combo = api.place_comboorder(SPREAD, spread_order(), timeout=0, cb=seen.append)
    assert api._combotrades == {"corr-1": combo} and combo.status.status == Status.Inactive
    api.session.deliver()
    assert api._combotrades == {"cmb-1": combo} and seen == [combo]


@pytest.mark.parametrize(
    "reply, status", [(refused(500, "leg not tradable"), Status.Failed), ({}, Status.Inactive)]
)
def test_unsuccessful_placement_stays_under_its_correlation_id(api, reply, status):
    api.session.reply(PLACE, reply)
    combo = api.place_comboorder(SPREAD, spread_order())
    assert api._combotrades == {"corr-1": combo} and combo.status.status == status
    assert isinstance(combo.status, ComboStatus)


@pytest.mark.parametrize("timeout", [5000, 0])
def test_cancel_leaves_no_temporary_entry_once_answered(api, placed, timeout):
    seen = []
    assert api.cancel_comboorder(placed, timeout=timeout, cb=seen.append) is placed
    payload = api.session.last(CANCEL).payload
    assert set(payload) == {"contract", "order", "tft"} and payload["order"]["ca"] == "sig-2"
    if not timeout:
        assert api._combotrades["corr-2"] is placed
        api.session.deliver()
    assert list(api._combotrades) == ["cmb-1"] and api._rep_callback_map == {}
    # A blocking cancel registers no callback, so none is called.
    assert seen == ([] if timeout else [placed])


def test_cancel_refusal_is_raised(api, placed):
    api.session.reply(CANCEL, refused(400, "already filled", sts_code=74006))
    with pytest.raises(ServiceError):
        api.cancel_comboorder(placed)
    assert placed.status.msg == "" and placed.status.status == Status.Submitted


def test_refresh_merges_and_hands_the_book_dict_to_the_callback(api, placed):
    new_spread = ComboContract(legs=[dict(TXF.dict(), action="Sell")])
    api.session.reply(
        REFRESH,
        ok(
            [
                {
                    "order": dict(placed.order.dict(), price=13.0),
                    "status": {"status": "Filled", "order_ts": 5},
                },
                {
                    "contract": new_spread.dict(),
                    "order": dict(spread_order().dict(), id="cmb-2"),
                    "status": {},
                },
            ]
        ),
    )
    seen = []
    api.update_combostatus(FUTURES_ACCOUNT, timeout=0, cb=seen.append)
    api.session.deliver()
    assert seen == [api._combotrades] and seen[0] is api._combotrades
    assert placed.order.price == 13.0 and placed.status.status == Status.Filled
    assert placed.status.order_datetime == local_time(5) and isinstance(placed.status, ComboStatus)
    added = api._combotrades["cmb-2"]
    assert isinstance(added, ComboTrade) and added.contract == new_spread
    assert api.session.last(REFRESH).payload == {"account": FUTURES_ACCOUNT.dict(), "seqno": "", "tft": False}


def test_simulation_refuses_every_combination_service(api_module, warnings):
    sim = order_api(api_module, simulation=True)
    combo = sim.place_comboorder(SPREAD, spread_order(), timeout=0, cb=print)
    assert isinstance(combo, ComboTrade) and combo.status.status == Status.Inactive and combo.order.ca == ""
    assert sim.cancel_comboorder(combo) is combo
    assert sim.update_combostatus(FUTURES_ACCOUNT) is None
    assert warnings == [
        f"Simulation not support {m} yet"
        for m in ("place_comboorder", "cancel_comboorder", "update_combostatus")
    ]
    assert sim.session.requests == [] and sim.combotrades == [] and sim._rep_callback_map == {}
