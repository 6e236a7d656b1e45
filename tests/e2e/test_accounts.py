"""Account queries and stock reservation over the bus."""

import pytest

from quorvex.account import StockAccount
from quorvex.constant import Action, Unit

from .broker import FUTURES, FUTURES_ACCOUNT, STOCK, STOCK_ACCOUNT, TOKEN, TSMC, ok

POSITION = {
    "id": 0,
    "code": "2330",
    "direction": "Buy",
    "quantity": 3,
    "price": 580.0,
    "last_price": 595.0,
    "pnl": 45000.0,
}
PROFIT = {"id": 0, "code": "2330", "quantity": 1, "price": 600.0, "pnl": 20000.0, "date": "2024-01-02"}

QUERIES = [
    # method, arguments, service, payload sent, reply's response, what the caller gets (given the api)
    (
        "account_balance",
        (STOCK_ACCOUNT,),
        "portfolio/account_balance",
        STOCK,
        {"account": STOCK, "acc_balance": 125000.0, "date": "2024-01-02 09:00:00", "errmsg": ""},
        lambda api, balance: (balance.acc_balance, balance.date) == (125000.0, "2024-01-02 09:00:00"),
    ),
    (
        "margin",
        (FUTURES_ACCOUNT,),
        "portfolio/margin",
        FUTURES,
        {"account": FUTURES, "margins": {"equity": 1000000.0, "available_margin": 800000.0}},
        lambda api, margin: (margin.equity, margin.available_margin) == (1000000.0, 800000.0),
    ),
    (
        "settlements",
        (STOCK_ACCOUNT,),
        "portfolio/settlements",
        STOCK,
        {
            "account": STOCK,
            "settlements": [
                {"date": "2024-01-02", "amount": -1740000.0, "T": 0},
                {"date": "2024-01-03", "amount": 0.0, "T": 1},
            ],
        },
        lambda api, rows: (
            [(row.date, row.amount, row.T) for row in rows]
            == [("2024-01-02", -1740000.0, 0), ("2024-01-03", 0.0, 1)]
        ),
    ),
]
# The cached listings run blocking: their non-blocking reply can overtake the send (test_callbacks).
CACHED_LISTINGS = [
    (
        "list_positions",
        (STOCK_ACCOUNT, Unit.Share),
        "portfolio/position_unit",
        {"account": STOCK, "unit": "Share"},
        {"account": STOCK, "positions": [POSITION]},
        lambda api, positions: (
            positions is api._positions["9A950512345"]
            and [(p.code, p.direction, p.pnl) for p in positions] == [("2330", Action.Buy, 45000.0)]
        ),
    ),
    (
        "list_profit_loss",
        (STOCK_ACCOUNT, "2024-01-01", "2024-01-02"),
        "portfolio/profit_loss",
        {"account": STOCK, "begin_date": "2024-01-01", "end_date": "2024-01-02"},
        {"account": STOCK, "profitloss": [PROFIT]},
        lambda api, items: (
            items is api._profit_loss["9A950512345"]
            and [(p.code, p.pnl, p.date) for p in items] == [("2330", 20000.0, "2024-01-02")]
        ),
    ),
]
CASE = "method, args, service, payload, response, check"


def round_trip(api, broker, run, method, args, service, payload, response, check):
    broker.answer(service, ok(**response))
    assert check(api, run(getattr(api, method), *args))
    request = broker.last(service)
    assert (request.token, request.payload) == (TOKEN, payload)


@pytest.mark.parametrize(CASE, QUERIES, ids=[q[0] for q in QUERIES])
def test_account_query_round_trip(api, broker, query, method, args, service, payload, response, check):
    round_trip(api, broker, query, method, args, service, payload, response, check)


@pytest.mark.parametrize(CASE, CACHED_LISTINGS, ids=[q[0] for q in CACHED_LISTINGS])
def test_cached_listing_round_trip(api, broker, method, args, service, payload, response, check):
    round_trip(
        api,
        broker,
        lambda method, *args: method(*args, timeout=2000),
        method,
        args,
        service,
        payload,
        response,
        check,
    )


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
