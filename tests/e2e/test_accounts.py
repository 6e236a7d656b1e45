"""Account queries and stock reservation over the bus."""

from quorvex.account import StockAccount
from quorvex.constant import Action, Unit

from .broker import STOCK, STOCK_ACCOUNT, TOKEN, TSMC, ok

POSITION = {"id": 0, "code": "2330", "direction": "Buy", "quantity": 3, "price": 580.0, "pnl": 45000.0}

# The queries' payloads and records are checked against the fake session (tests/accounts); over
# the bus one query in both modes and one cached listing (blocking: its non-blocking reply can
# overtake the send, see test_callbacks) show the token, the topic and the reply travel.


def test_account_query_round_trip(api, broker, query):
    reply = {"account": STOCK, "acc_balance": 125000.0, "date": "2024-01-02 09:00:00", "errmsg": ""}
    broker.answer("portfolio/account_balance", ok(**reply))
    balance = query(api.account_balance, STOCK_ACCOUNT)
    assert (balance.acc_balance, balance.date) == (125000.0, "2024-01-02 09:00:00")
    request = broker.last("portfolio/account_balance")
    assert (request.token, request.payload) == (TOKEN, STOCK)


def test_cached_listing_round_trip(api, broker):
    broker.answer("portfolio/position_unit", ok(account=STOCK, positions=[POSITION]))
    positions = api.list_positions(STOCK_ACCOUNT, Unit.Share, timeout=2000)
    assert positions is api._positions["9A950512345"]
    assert [(p.code, p.direction, p.pnl) for p in positions] == [("2330", Action.Buy, 45000.0)]
    request = broker.last("portfolio/position_unit")
    assert (request.token, request.payload) == (TOKEN, {"account": STOCK, "unit": "Share"})


def test_reserve_stock_sends_a_verifiable_signed_text(signing_api, broker, query, verify_signature):
    broker.answer("order/reserve_stock", ok(account=STOCK, share=2000, status=True, info="reserved"))
    result = query(signing_api.reserve_stock, STOCK_ACCOUNT, TSMC, 2000)
    assert (result.response.share, result.response.status, result.response.info) == (2000, True, "reserved")
    assert isinstance(result.response.account, StockAccount) and result.error is None
    sent = broker.last("order/reserve_stock")
    assert (sent.payload["account"], sent.payload["contract"]["code"]) == (STOCK, "2330")
    signed = sent.payload["order"]["ca"]
    assert signed["plain_text"] == f"{STOCK_ACCOUNT} | {TSMC} | {2000}"
    verify_signature(signed["signature"], content=signed["plain_text"])
    assert sent.payload["order"]["share"] == 2000
