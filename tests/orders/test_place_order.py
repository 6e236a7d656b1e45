"""A placement's life in the trade book: in flight, accepted and re-keyed, failed, refused."""

import datetime
import logging

import pytest

from conftest import ok, refused
from orders_support import STOCK_ACCOUNT, TSMC, local_time, order, order_api
from quorvex.account import StockAccount
from quorvex.constant import Status
from quorvex.contracts import Option, Stock
from quorvex.error import TokenError

TOPIC = "api/v1/order/place_order"
ACCEPTED = ok(
    {
        "order": {"id": "ord-9", "seqno": "000123", "price": 581.0},
        "status": {"status": "PendingSubmit", "order_ts": 1763600000, "status_code": "0000"},
    }
)


@pytest.fixture
def api(api_module):
    return order_api(api_module)


def test_sends_the_signed_order_and_rekeys_the_accepted_trade(api):
    api.session.reply(TOPIC, ACCEPTED)
    placed = order()
    trade = api.place_order(TSMC, placed)

    payload = api.session.last(TOPIC).payload
    assert set(payload) == {"contract", "order", "tft"} and payload["tft"] is False
    assert payload["order"]["ca"] == "sig-1" and payload["contract"] == TSMC.dict()
    assert api._trades == {"ord-9": trade} and api._rep_callback_map == {}
    # The server's order fields win; the fields it left out keep the placed values.
    assert (trade.order.id, trade.order.seqno, trade.order.price, trade.order.quantity) == (
        "ord-9",
        "000123",
        581.0,
        3,
    )
    assert trade.order.ca == "sig-1" and trade.order.account == STOCK_ACCOUNT
    assert (placed.id, placed.ca) == ("", "")  # the caller's order is left as it was
    assert (trade.status.id, trade.status.status) == ("ord-9", Status.PendingSubmit)
    assert trade.status.order_datetime == local_time(1763600000)


@pytest.mark.parametrize(
    "response, key, status_id, when",
    [
        ({"order": {"id": "ord-2"}}, "ord-2", "ord-2", local_time(1568768168)),
        ({"status": {"order_ts": 1763600000}}, "", "", local_time(1763600000)),
        # The reply's status keys override the computed ones.
        (
            {"order": {"id": "ord-3"}, "status": {"id": "srv-3", "order_datetime": "2026-11-20T09:00:00"}},
            "ord-3",
            "srv-3",
            datetime.datetime(2026, 11, 20, 9),
        ),
    ],
)
def test_accepted_reply_with_missing_or_own_status_fields(api, response, key, status_id, when):
    api.session.reply(TOPIC, ok(response))
    trade = api.place_order(TSMC, order())
    assert api._trades == {key: trade} and trade.status.id == status_id
    assert trade.status.order_datetime == when


@pytest.mark.parametrize(
    "reply, status, logged",
    [
        (
            refused(500, "price out of range", order={"id": "", "ca": "MIIB-order-signature"}),
            Status.Failed,
            "price out of range",
        ),
        ({"response": {}}, Status.Inactive, f"Topic: {TOPIC}, Status Code is None."),
        ({"status": {"status_code": None}}, Status.Inactive, "Status Code is None."),
    ],
)
def test_unsuccessful_reply_leaves_the_trade_under_its_correlation_id(api, caplog, reply, status, logged):
    api.session.reply(TOPIC, reply)
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        trade = api.place_order(TSMC, order())
    assert api._trades == {"corr-1": trade} and trade.status.status == status
    assert logged in caplog.text and "MIIB-order-signature" not in caplog.text


def test_refused_token_is_logged_and_raised(api, caplog):
    api.session.reply(
        TOPIC, refused(401, "token expired", order={"ca": "MIIB-order-signature"}, token="tok-1")
    )
    with caplog.at_level(logging.ERROR, logger="quorvex"), pytest.raises(TokenError) as info:
        api.place_order(TSMC, order())
    assert (info.value.status_code, info.value.detail) == (401, "token expired")
    assert (
        "token expired" in caplog.text
        and "MIIB-order-signature" not in caplog.text
        and "tok-1" not in caplog.text
    )
    assert api._trades["corr-1"].status.status == Status.Inactive


def test_none_reply_fails_and_keeps_the_inactive_trade(api):
    api.session.reply(TOPIC, lambda request: None)
    with pytest.raises(AttributeError):
        api.place_order(TSMC, order())
    assert api._trades["corr-1"].status.status == Status.Inactive


@pytest.mark.parametrize("with_cb", [True, False])
def test_non_blocking_returns_the_inactive_trade_completed_later(api, with_cb):
    api.session.reply(TOPIC, ACCEPTED)
    seen = []
    trade = api.place_order(TSMC, order(), timeout=0, cb=seen.append if with_cb else None)
    assert trade.status.status == Status.Inactive and api._trades == {"corr-1": trade}
    assert "corr-1" in api._rep_callback_map

    api.session.deliver()
    assert api._trades == {"ord-9": trade} and trade.status.status == Status.PendingSubmit
    assert seen == ([trade] if with_cb else []) and api._rep_callback_map == {}


class TaggedStock(Stock):
    """A contract record whose dict() is its own: the payload must come from it."""

    def dict(self, **kwargs):
        return dict(super().dict(**kwargs), tag="own")


@pytest.mark.parametrize(
    "contract",
    [
        TSMC,
        Stock(exchange="TSE", code="2330", board="odd"),  # an extra field the record keeps
        Option(exchange="TAIFEX", code="TXO18000L6", strike_price=18000, option_right="C"),
        TaggedStock(exchange="TSE", code="2330"),
    ],
    ids=["stock", "extra-field", "option", "own-dict"],
)
def test_payload_records_are_exactly_their_dicts(api, contract):
    placed = order(account=StockAccount(**STOCK_ACCOUNT.dict(), branch="Taipei"))
    api.session.reply(TOPIC, ACCEPTED)
    api.place_order(contract, placed)
    payload = api.session.last(TOPIC).payload
    signed = placed.model_copy(update={"ca": "sig-1"})
    for sent, record in ((payload["contract"], contract), (payload["order"], signed)):
        assert sent == record.dict() and list(sent) == list(record.dict())
    assert list(payload["order"]["account"]) == list(signed.account.dict())
