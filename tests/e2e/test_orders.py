"""Orders over the bus: placement, the reports pushed to the session, refresh, modify, cancel."""

import pytest

from bus.helpers import Recorder
from quorvex.constant import OrderState, Status
from quorvex.order import Order

from .broker import (
    CLIENT_NAME,
    FUTURES_ACCOUNT,
    PERSON,
    PUBLIC_IP,
    STOCK,
    STOCK_ACCOUNT,
    TOKEN,
    TSMC,
    TXF,
    ok,
)

ORDER_TS = 1704157201


def accept(payload, info):
    """The order service: takes the order under id "ord-7"."""
    return ok(
        order=dict(payload["order"], id="ord-7", seqno="000123"),
        status={
            "status": "PendingSubmit",
            "order_ts": ORDER_TS,
            "order_quantity": payload["order"]["quantity"],
        },
    )


def place(api, broker, contract=TSMC, account=STOCK_ACCOUNT):
    """Places a limit buy of 3 and waits for the reply (the non-blocking placement is in
    test_callbacks: its reply can overtake the send)."""
    broker.answer("order/place_order", accept)
    return api.place_order(
        contract, Order(action="Buy", price=580.0, quantity=3, account=account), timeout=2000
    )


def test_placed_order_is_signed_and_rekeyed(signing_api, broker, verify_signature):
    trade = place(signing_api, broker)
    assert signing_api._trades == {"ord-7": trade}
    assert (trade.order.id, trade.order.seqno, trade.status.id) == ("ord-7", "000123", "ord-7")
    assert (trade.status.status, trade.status.order_quantity) == (Status.PendingSubmit, 3)
    sent = broker.last("order/place_order")
    assert (sent.token, sent.client_name) == (TOKEN, CLIENT_NAME)
    assert (sent.payload["contract"]["code"], sent.payload["tft"]) == ("2330", False)
    assert verify_signature(sent.payload["order"]["ca"]).startswith(f"{PERSON}|{PUBLIC_IP}|")


@pytest.mark.parametrize(
    "contract, account, word, state, ordno",
    [
        (TXF, FUTURES_ACCOUNT, "FORDER", OrderState.FOrder, "X0001"),
        (TSMC, STOCK_ACCOUNT, "ORDER", OrderState.Order, ""),
        (TSMC, STOCK_ACCOUNT, "TFT_DEAL", OrderState.TFTDeal, ""),
    ],
    ids=["futures-order", "stock-order", "stock-deal"],
)
def test_reports_sent_to_the_client_name_reach_the_order_callback(
    signing_api, broker, contract, account, word, state, ordno
):
    trade = place(signing_api, broker, contract, account)
    ordno_at_callback = []
    reports = Recorder(lambda state, msg: ordno_at_callback.append(signing_api._trades["ord-7"].order.ordno))
    signing_api.set_order_callback(reports)
    report = {"order": {"id": "ord-7", "ordno": "X0001"}, "status": {"status": "Submitted"}}
    assert broker.responder.send_p2p(CLIENT_NAME, "order/" + word, report) == 1
    assert reports.wait()
    assert reports.calls == [(state, report)]
    assert ordno_at_callback == [ordno] and trade.order.ordno == ordno


def test_update_status_merges_into_the_trade_book(signing_api, broker, query):
    trade = place(signing_api, broker)
    # Merging new and known entries, and filling in a blank holder, is checked with the fake session.
    entries = [
        {
            "contract": TSMC.dict(),
            "order": {"id": "ord-7", "ordno": "X0001", "account": STOCK},
            "status": {"status": "Filled", "deal_quantity": 3, "order_ts": ORDER_TS},
        }
    ]
    broker.answer("order/update_status", {"status": {"status_code": 200}, "response": entries})
    delivered = query(signing_api.update_status, STOCK_ACCOUNT)
    assert delivered in (None, signing_api.trades)
    assert broker.last("order/update_status").payload == {"account": STOCK, "seqno": "", "tft": False}
    assert len(signing_api.trades) == 1 and signing_api.trades[0] is trade
    assert (trade.status.status, trade.status.deal_quantity, trade.order.ordno) == (Status.Filled, 3, "X0001")
    assert trade.order.price == 580.0


def test_cancel_reaches_its_topic(signing_api, broker, query):
    # The payloads of each change are checked with the fake session (tests/orders).
    trade = place(signing_api, broker)
    broker.answer("order/cancel_order", ok(detail="accepted"))
    assert query(signing_api.cancel_order, trade) is trade
    request = broker.last("order/cancel_order")
    assert request.payload["order"]["id"] == "ord-7" and "status" not in request.payload
    services = [seen.service for seen in broker.seen if seen.service.startswith("order/")]
    assert services == ["order/place_order", "order/cancel_order"]
    assert trade.status.msg == "accepted"
