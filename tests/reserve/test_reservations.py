"""Reserving stock and earmarking: signed requests, listings, refusals carried in `error`."""

import datetime

import pytest

from conftest import ok, refused
from quorvex.account import StockAccount
from quorvex.contracts import Stock
from quorvex.data import CASign
from quorvex.error import TimeoutError
from quorvex.reserve import EarmarkStockDetail, ErrorResponse, ReserveStockDetail, ReserveStockSummary

ACCOUNT = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0512345", signed=True)
TSMC = Stock(exchange="TSE", code="2330", name="TSMC", reference=580.0)
UMC = Stock(exchange="TSE", code="2303", reference=48.5)

RESERVE = "api/v1/order/reserve_stock"
EARMARK = "api/v1/order/reserve_earmarking"
SUMMARY = "api/v1/order/stock_reserve_summary"
DETAIL = "api/v1/order/stock_reserve_detail"
EARMARK_DETAIL = "api/v1/order/earmarking_detail"


class Request:
    """One signed request: its method, arguments and the values its text joins."""

    def __init__(self, method, topic, args, answer):
        self.method, self.topic, self.args, self.answer = method, topic, args, answer

    def call(self, api, **kw):
        return getattr(api, self.method)(ACCOUNT, TSMC, *self.args, **kw)

    def signed_text(self):
        return " | ".join(str(v) for v in (ACCOUNT, TSMC, *self.args))


REQUESTS = [
    Request("reserve_stock", RESERVE, (2000,), {"share": 2000, "status": True, "info": "reserved"}),
    Request(
        "reserve_earmarking",
        EARMARK,
        (1000, 579),
        {"share": 1000, "price": 579.0, "status": True, "info": "earmarked"},
    ),
]
requests = pytest.mark.parametrize("request_", REQUESTS, ids=[r.method for r in REQUESTS])

LISTINGS = [
    (
        "stock_reserve_summary",
        SUMMARY,
        ReserveStockSummary,
        [
            {"contract": TSMC.dict(), "available_share": 5000, "reserved_share": 2000},
            {"contract": UMC.dict(), "available_share": 0, "reserved_share": 1000},
        ],
    ),
    (
        "stock_reserve_detail",
        DETAIL,
        ReserveStockDetail,
        [
            {
                "contract": TSMC.dict(),
                "share": 2000,
                "order_datetime": datetime.datetime(2026, 11, 20, 9, 1),
                "status": True,
                "info": "",
            }
        ],
    ),
    (
        "earmarking_detail",
        EARMARK_DETAIL,
        EarmarkStockDetail,
        [{"contract": TSMC.dict(), "share": 1000, "price": 579.0, "amount": 579000.0, "status": True}],
    ),
]
listings = pytest.mark.parametrize("method,topic,row,stocks", LISTINGS, ids=[x[0] for x in LISTINGS])


@pytest.fixture
def signatures():
    """Stands in for prepare_casign: records (text, account) and signs with a fixed value."""
    calls = []

    def prepare_casign(plain_text, account):
        calls.append((plain_text, account))
        return CASign(signature="MIIB-signature", plain_text=plain_text)

    return calls, prepare_casign


@pytest.fixture
def signing_api(api, signatures):
    api.prepare_casign = signatures[1]
    return api


def answer(**fields):
    return ok(dict({"account": ACCOUNT.dict()}, **fields))


# ---- the signed requests ---------------------------------------------------------------


@requests
def test_blocking_request_is_signed_sent_and_answered(signing_api, signatures, request_):
    signing_api.session.reply(request_.topic, answer(**request_.answer))
    result = request_.call(signing_api)

    assert signatures[0] == [(request_.signed_text(), ACCOUNT)]
    payload = signing_api.session.last(request_.topic).payload
    assert list(payload) == ["account", "contract", "order"]
    assert (payload["account"], payload["contract"]) == (ACCOUNT.dict(), TSMC.dict())
    ca = {"signature": "MIIB-signature", "plain_text": request_.signed_text()}
    expected_order = dict(zip(("share", "price"), request_.args), ca=ca)
    assert payload["order"] == expected_order

    assert result.error is None
    assert {k: getattr(result.response, k) for k in request_.answer} == request_.answer
    assert result.response.account == ACCOUNT and result.response.contract == TSMC
    assert signing_api._reqrep == {} and signing_api._rep_callback_map == {}


@requests
def test_non_blocking_request_fills_the_result_later(signing_api, request_):
    signing_api.session.reply(request_.topic, answer(**request_.answer))
    calls = []
    result = request_.call(signing_api, timeout=0, cb=calls.append)

    assert (result.response.status, result.response.info, calls) == (False, "", [])
    assert result.response.share == request_.args[0]
    signing_api.session.deliver()
    assert calls == [result] and result.response.status is True


@requests
def test_refusal_is_carried_in_error(signing_api, request_):
    signing_api.session.reply(request_.topic, refused(422, "no shares to lend"))
    calls = []
    result = request_.call(signing_api, timeout=0, cb=calls.append)
    signing_api.session.deliver()

    assert calls == [result]
    assert result.error == ErrorResponse(status_code=422, detail="no shares to lend")
    assert (result.response.status, result.response.info) == (False, "")


@requests
def test_empty_blocking_reply_is_a_timeout(signing_api, request_):
    signing_api.session.reply(request_.topic, {})
    with pytest.raises(TimeoutError) as raised:
        request_.call(signing_api)
    assert raised.value.topic == request_.topic
    assert raised.value.payload == signing_api.session.last(request_.topic).payload
    assert "MIIB-signature" not in str(raised.value)
    (placeholder,) = signing_api._reqrep.values()
    assert placeholder.response.status is False

    # Without waiting there is nothing to time out: the callback waits for its reply.
    calls = []
    request_.call(signing_api, timeout=0, cb=calls.append)
    assert len(signing_api._rep_callback_map) == 1


@requests
def test_signing_failure_sends_nothing(api, request_):
    def no_certificate(plain_text, account):
        raise Exception("Please activate ca for person_id: A123456789")

    api.prepare_casign = no_certificate
    with pytest.raises(Exception, match="activate ca"):
        request_.call(api)
    assert api.session.requests == [] and api.session._gen_reqid() == "corr-1"


@requests
def test_answer_without_account_is_a_type_error(signing_api, request_):
    signing_api.session.reply(request_.topic, ok(request_.answer))
    with pytest.raises(TypeError, match="must be a mapping"):
        request_.call(signing_api)


# ---- the listings ----------------------------------------------------------------------


@listings
def test_listing_in_both_modes(api, method, topic, row, stocks):
    api.session.reply(topic, answer(stocks=stocks))
    result = getattr(api, method)(ACCOUNT)
    assert api.session.last(topic).payload == {"account": ACCOUNT.dict()}
    assert result.error is None and result.response.account == ACCOUNT
    assert [type(r) for r in result.response.stocks] == [row] * len(stocks)
    assert [r.contract.code for r in result.response.stocks] == [s["contract"]["code"] for s in stocks]

    calls = []
    later = getattr(api, method)(ACCOUNT, timeout=0, cb=calls.append)
    assert later.response.stocks == [] and calls == []
    api.session.deliver()
    assert calls == [later] and later.response == result.response
    assert api._reqrep == {} and api._rep_callback_map == {}


@listings
def test_listing_failures(api, method, topic, row, stocks):
    api.session.reply(topic, refused(503, "under maintenance"))
    result = getattr(api, method)(ACCOUNT)
    assert result.error == ErrorResponse(status_code=503, detail="under maintenance")
    assert result.response.stocks == [] and result.response.account == ACCOUNT

    api.session.reply(topic, None)
    with pytest.raises(TimeoutError, match=topic):
        getattr(api, method)(ACCOUNT)


def test_refusal_without_a_status_block(api):
    api.session.reply(SUMMARY, {"response": {"detail": "gateway error"}})
    assert api.stock_reserve_summary(ACCOUNT).error == ErrorResponse(status_code="", detail="gateway error")


# ---- simulation ------------------------------------------------------------------------


@pytest.mark.parametrize(
    "method,args",
    [
        ("reserve_stock", (ACCOUNT, TSMC, 2000)),
        ("reserve_earmarking", (ACCOUNT, TSMC, 1000, 579)),
        ("stock_reserve_summary", (ACCOUNT,)),
        ("stock_reserve_detail", (ACCOUNT,)),
        ("earmarking_detail", (ACCOUNT,)),
    ],
)
def test_simulation_refuses_without_signing_or_sending(sim_api, signatures, warnings, method, args):
    sim_api.prepare_casign = signatures[1]
    result = getattr(sim_api, method)(*args)

    assert warnings == [f"Simulation not support {method} yet"]
    assert signatures[0] == [] and sim_api.session.requests == []
    assert sim_api.session._gen_reqid() == "corr-1"
    assert result.error is None and result.response.account == ACCOUNT
    if len(args) > 1:
        assert (result.response.share, result.response.status, result.response.info) == (args[2], False, "")
        if method == "reserve_earmarking":
            assert result.response.price == 579.0 and isinstance(result.response.price, float)
    else:
        assert result.response.stocks == []
