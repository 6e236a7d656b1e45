"""Status refresh: merging the service's view into known trades and adding unknown ones."""

import pytest

from conftest import ok, refused
from orders_support import STOCK_ACCOUNT, TSMC, local_time, order, order_api, trade
from quorvex.constant import Status
from quorvex.contracts import Contract
from quorvex.error import ServiceError

TOPIC = "api/v1/order/update_status"


def entry(order_id, account=None, contract=None, **status):
    fields = dict(order(id=order_id).dict(), price=590.0)
    if account is not None:
        fields["account"] = account
    return {"contract": (contract or TSMC).dict(), "order": fields, "status": status}


@pytest.fixture
def api(api_module):
    api = order_api(api_module)
    api._person_id = "B987654321"
    return api


def test_payload_carries_account_seqno_and_tft(api):
    assert api.update_status(STOCK_ACCOUNT, seqno="000123") is None
    assert api.session.last(TOPIC).payload == {
        "account": STOCK_ACCOUNT.dict(),
        "seqno": "000123",
        "tft": False,
    }


def test_known_trade_is_merged_in_place(api):
    known = api._trades["ord-1"] = trade(msg="kept", modified_price=585.0)
    old_order, old_status = known.order, known.status
    api.session.reply(
        TOPIC,
        ok(
            [
                entry(
                    "ord-1",
                    status="Filled",
                    deal_quantity=3,
                    order_ts=1763600000,
                    order_datetime="2001-01-01T00:00:00",
                )
            ]
        ),
    )
    api.update_status(STOCK_ACCOUNT)

    assert api.trades == [known] and known.contract == TSMC
    assert known.order is not old_order and known.order.price == 590.0 and known.order.id == "ord-1"
    assert known.status is not old_status
    assert (known.status.status, known.status.deal_quantity) == (Status.Filled, 3)
    assert (known.status.msg, known.status.modified_price) == ("kept", 585.0)
    # Always recomputed from "order_ts", whatever either side said.
    assert known.status.order_datetime == local_time(1763600000)


def test_unknown_trades_are_added_at_the_end_and_blank_holders_filled(api):
    known = api._trades["ord-1"] = trade()
    blank = dict(STOCK_ACCOUNT.dict(), person_id="   ")
    api.session.reply(TOPIC, ok([entry("ord-7", account=blank, status="Submitted"), entry("ord-8")]))
    seen = []
    api.update_status(STOCK_ACCOUNT, timeout=0, cb=seen.append)
    api.session.deliver()

    assert list(api._trades) == ["ord-1", "ord-7", "ord-8"] and seen == [api.trades]
    added = api._trades["ord-7"]
    assert type(added.contract) is Contract and added.contract.code == "2330"
    assert added.order.account.person_id == "B987654321" and added.status.status == Status.Submitted
    assert added.status.order_datetime == local_time(0)
    assert api._trades["ord-8"].order.account.person_id == "A123456789" and api.trades[0] is known


def test_empty_reply_still_calls_back_with_the_book(api):
    api._trades["ord-1"] = trade()
    seen = []
    api.update_status(STOCK_ACCOUNT, timeout=0, cb=seen.append)
    api.session.deliver()
    assert seen == [[api._trades["ord-1"]]]


def test_refusal_is_raised_and_leaves_the_book(api):
    api.session.reply(TOPIC, refused(500, "busy"))
    with pytest.raises(ServiceError, match="busy"):
        api.update_status(STOCK_ACCOUNT)
    assert api._trades == {}


@pytest.mark.parametrize(
    "bad, error",
    [
        ({"order": {"id": "ord-7"}, "status": {}}, KeyError),  # no account to fill
        (dict(entry("ord-7"), status={"order_datetime": "2026-11-20T09:00:00"}), TypeError),
    ],
)
def test_malformed_entry_stops_the_merge_after_earlier_entries(api, bad, error):
    api.session.reply(TOPIC, ok([entry("ord-6"), bad]))
    with pytest.raises(error):
        api.update_status(STOCK_ACCOUNT)
    assert list(api._trades) == ["ord-6"]
