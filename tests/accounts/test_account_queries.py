"""Account queries: balance, margin and settlements; the per-account caches of positions and
profit and loss with the detail queries that read them; the profit-and-loss summary."""

import datetime
import logging

import pytest

from conftest import make_api, ok, refused
from quorvex import position as pos
from quorvex.account import FutureAccount, StockAccount
from quorvex.constant import FetchStatus, Unit
from quorvex.data import AccountBalance, Margin, SettlementV1
from quorvex.error import ServiceError

STOCK = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0512345")
FUTURES = FutureAccount(person_id="A123456789", broker_id="F002000", account_id="1234567")
KEYS = {"S": "9A950512345", "F": "F0020001234567"}
PORTFOLIO = "api/v1/portfolio/"


def with_account(account, **fields):
    return ok(dict({"account": account.dict()}, **fields))


# ---- balance, margin, settlements ------------------------------------------------------

SHEET = {
    "t_money": -1200.0,
    "t1_money": 0.0,
    "t2_money": 35000.0,
    "t_day": "2026-11-20",
    "t1_day": "2026-11-23",
    "t2_day": "2026-11-24",
}
SETTLEMENT_DAYS = [
    {"date": "2026-11-20", "amount": -1200.0, "T": 0},
    {"date": "2026-11-24", "amount": 35000.0, "T": 2},
]

# method, account, topic, reply fields, what the filled result shows, what the empty one shows
QUERIES = [
    (
        "account_balance",
        STOCK,
        "account_balance",
        {"acc_balance": 1250000.0, "date": "2026-11-20 14:30:00"},
        lambda r: (r.acc_balance, r.date, r.errmsg),
        (0, "", ""),
    ),
    (
        "margin",
        FUTURES,
        "margin",
        {"margins": {"equity": 520000.0, "plus_margin": 9, "new_field": 7}},
        lambda r: {k: v for k, v in r.dict().items() if v and k != "status"},
        {},
    ),
    (
        "settlements",
        STOCK,
        "settlements",
        {"settlements": SETTLEMENT_DAYS},
        lambda rows: [(type(r), r.T) for r in rows],
        [],
    ),
    (
        "list_settlements",
        STOCK,
        "settlement",
        {"settlements": SHEET},
        lambda r: {k: getattr(r, k) for k in SHEET},
        {k: (0 if "money" in k else "") for k in SHEET},
    ),
]
FILLED = {
    "account_balance": (1250000.0, "2026-11-20 14:30:00", ""),
    "margin": {"equity": 520000.0, "plus_margin": 9, "new_field": 7},  # unknown keys pass through
    "settlements": [(SettlementV1, 0), (SettlementV1, 2)],
    "list_settlements": SHEET,
}
queries = pytest.mark.parametrize(
    "method,account,service,fields,shown,empty", QUERIES, ids=[q[0] for q in QUERIES]
)


@queries
def test_query_in_both_modes(api, method, account, service, fields, shown, empty):
    topic = PORTFOLIO + service
    api.session.reply(topic, with_account(account, **fields))
    calls = []
    result = getattr(api, method)(account, cb=calls.append)
    assert shown(result) == FILLED[method] and calls == []
    assert api.session.last(topic).payload == account.dict()

    later = getattr(api, method)(account, timeout=0, cb=calls.append)
    assert shown(later) == empty and calls == []
    assert getattr(later, "status", FetchStatus.Fetching) == FetchStatus.Fetching
    api.session.deliver()
    assert shown(later) == FILLED[method] and calls == [later] and calls[0] is later
    assert getattr(later, "status", FetchStatus.Fetched) == FetchStatus.Fetched
    assert api._reqrep == {} and api._rep_callback_map == {}


@queries
def test_query_failures(api, caplog, method, account, service, fields, shown, empty):
    topic = PORTFOLIO + service
    api.session.reply(topic, refused(400, "account not found"))
    with pytest.raises(ServiceError, match="status 400: account not found"):
        getattr(api, method)(account)
    assert api._reqrep == {} and api._rep_callback_map == {}

    calls = []
    api.session.reply(topic, ok(dict(fields, account={})))  # no account: logged, callback still runs
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        result = getattr(api, method)(account, timeout=0, cb=calls.append)
        api.session.deliver()
    assert shown(result) == empty and calls == [result]
    assert [r.msg for r in caplog.records] == [{}]


@pytest.mark.parametrize(
    "method,result",
    [
        ("account_balance", AccountBalance(acc_balance=0, date="", errmsg="", status=FetchStatus.Fetched)),
        ("margin", Margin(status=FetchStatus.Fetched)),
        ("settlements", []),
    ],
)
def test_simulation_refuses_without_sending(sim_api, warnings, method, result):
    assert getattr(sim_api, method)(STOCK) == result
    assert warnings == [f"Simulation not support {method} yet"]
    assert sim_api.session.requests == []
    assert sim_api.session._gen_reqid() == "corr-2"  # the refused call drew one


def test_settlement_sheet_is_asked_for_in_simulation(sim_api, warnings):
    sim_api.session.reply(PORTFOLIO + "settlement", with_account(STOCK, settlements=SHEET))
    assert sim_api.list_settlements(STOCK).t2_money == 35000.0 and warnings == []


def test_balance_reply_details(api, caplog):
    reply = with_account(STOCK, acc_balance=10, errmsg="ledger closed")
    api.session.reply(PORTFOLIO + "account_balance", reply)
    before = datetime.datetime.now().replace(microsecond=0)
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        result = api.account_balance(STOCK)
    assert before <= datetime.datetime.strptime(result.date, "%Y-%m-%d %H:%M:%S") <= datetime.datetime.now()
    # The service's message is the record's to show; the handler logs nothing of it.
    assert caplog.records == [] and result.errmsg == "ledger closed"


@pytest.mark.parametrize(
    "method,service,key", [("margin", "margin", "margins"), ("list_settlements", "settlement", "settlements")]
)
def test_sheet_that_is_not_a_mapping_is_a_type_error(api, method, service, key):
    api.session.reply(PORTFOLIO + service, with_account(STOCK, **{key: None}))
    with pytest.raises(TypeError, match="must be a mapping"):
        getattr(api, method)(STOCK)


# ---- positions and profit and loss: the cached listings --------------------------------

ROWS = {
    ("positions", "S"): [
        {"id": 0, "code": "2330", "direction": "Buy", "cond": "Cash"},
        {"id": 1, "code": "2317", "direction": "Sell", "cond": "ShortSelling"},
    ],
    ("positions", "F"): [{"id": 0, "code": "TXFL6", "direction": "Buy", "quantity": 2}],
    ("profitloss", "S"): [
        {
            "id": 0,
            "code": "2330",
            "seqno": "14",
            "dseq": "WA01",
            "price": 590.0,
            "cond": "Cash",
            "date": "20261118",
        },
        {
            "id": 1,
            "code": "2603",
            "seqno": "15",
            "dseq": "WA02",
            "price": 61.0,
            "cond": "MarginTrading",
            "date": "20261119",
        },
    ],
    ("profitloss", "F"): [{"id": 0, "code": "TXFL6", "direction": "Sell", "date": "20261119"}],
}


class Listing:
    def __init__(self, method, args, rows_key, cache, stock, future):
        self.method, self.args, self.rows_key, self.cache = method, args, rows_key, cache
        self.records = {"S": stock, "F": future}

    def topic(self, api):
        return getattr(api, self.method + "_topic")  # the paper-trading service in simulation

    def call(self, api, account, **kw):
        return getattr(api, self.method)(account, *self.args, **kw)

    def reply(self, account, rows=None):
        rows = ROWS[self.rows_key, account.account_type.value] if rows is None else rows
        return with_account(account, **{self.rows_key: rows})

    def fill(self, api, account):
        api.session.reply(self.topic(api), self.reply(account))
        return self.call(api, account)


POSITIONS = Listing(
    "list_positions", (Unit.Common,), "positions", "_positions", pos.StockPosition, pos.FuturePosition
)
PROFIT_LOSS = Listing(
    "list_profit_loss",
    ("2026-11-01", "2026-11-20"),
    "profitloss",
    "_profit_loss",
    pos.StockProfitLoss,
    pos.FutureProfitLoss,
)
listings = pytest.mark.parametrize("listing", [POSITIONS, PROFIT_LOSS], ids=["positions", "profit_loss"])
accounts = pytest.mark.parametrize("account", [STOCK, FUTURES], ids=["stock", "futures"])


@listings
@accounts
@pytest.mark.parametrize("simulation", [False, True], ids=["normal", "simulation"])
def test_listing_fills_the_cache_entry_it_returns(api_module, listing, account, simulation):
    api = make_api(api_module, simulation=simulation)
    rows = listing.fill(api, account)
    kind = account.account_type.value
    assert rows is getattr(api, listing.cache)[KEYS[kind]]
    expected = ROWS[listing.rows_key, kind]
    assert [(type(r), r.id) for r in rows] == [(listing.records[kind], r["id"]) for r in expected]
    payload = api.session.last().payload
    assert payload == dict({"account": account.dict()}, **dict(zip(list(payload)[1:], listing.args)))
    assert len(payload) == 1 + len(listing.args)
    assert api._reqrep == {} and api._rep_callback_map == {}


@listings
def test_cache_entry_is_replaced_after_each_send(api, listing):
    first = listing.fill(api, STOCK)
    calls = []
    second = listing.call(api, STOCK, timeout=0, cb=calls.append)
    assert second == [] and len(first) == 2 and getattr(api, listing.cache)[KEYS["S"]] is second
    api.session.deliver()
    assert calls == [second] and calls[0] is second and len(second) == 2 and len(first) == 2

    # A reply that beats the installation of the fresh list fills the list it replaces.
    request = api.session.request

    def answered_at_once(*args, **kw):
        request(*args, **kw)
        api.session.deliver()

    api.session.request = answered_at_once
    api.session.reply(listing.topic(api), listing.reply(STOCK, ROWS[listing.rows_key, "S"][:1]))
    third = listing.call(api, STOCK, timeout=0)
    assert len(second) == 1 and third == [] and getattr(api, listing.cache)[KEYS["S"]] is third


@listings
def test_listing_failures(api, caplog, listing):
    api.session.reply(listing.topic(api), refused(500, "ledger unavailable"))
    with pytest.raises(ServiceError, match="ledger unavailable"):
        listing.call(api, STOCK)
    assert getattr(api, listing.cache)[KEYS["S"]] == [] and api._rep_callback_map == {}

    api.session.reply(listing.topic(api), listing.reply(FUTURES))
    with pytest.raises(KeyError, match=KEYS["F"]):  # an account never listed has no list to fill
        listing.call(api, STOCK)

    api.session.reply(listing.topic(api), ok({"account": {}, listing.rows_key: []}))
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        assert listing.call(api, STOCK) == []
    assert [r.msg for r in caplog.records] == [{}]
    listing.call(api, STOCK, timeout=0, cb=lambda rows: None)
    with pytest.raises(AttributeError, match="broker_id"):  # no account to find the callback's list by
        api.session.deliver()


# ---- the detail queries, which read the caches -----------------------------------------

DETAIL_ROWS = [
    {"date": "20261118", "code": "2330", "quantity": 1, "dseq": "WA01", "direction": "Buy"},
    {"date": "20261119", "code": "2330", "quantity": 2, "dseq": "WA03", "direction": "Buy"},
]
# method, listing, topic, rows key, records by account type
DETAILS = [
    (
        "list_position_detail",
        POSITIONS,
        "position_detail",
        "position_detail",
        {"S": pos.StockPositionDetail, "F": pos.FuturePositionDetail},
    ),
    (
        "list_profit_loss_detail",
        PROFIT_LOSS,
        "profit_loss_detail",
        "profitdetail",
        {"S": pos.StockProfitDetail, "F": pos.FutureProfitDetail},
    ),
]
details = pytest.mark.parametrize(
    "method,listing,service,rows_key,records", DETAILS, ids=[d[0] for d in DETAILS]
)


@pytest.mark.parametrize(
    "detail,account,payload",
    [
        (DETAILS[0], STOCK, {"code": "2317", "action": "Sell", "ttype": "ShortSelling"}),
        (DETAILS[0], FUTURES, {"code": "TXFL6", "action": "Buy"}),
        (
            DETAILS[1],
            STOCK,
            {
                "stock": "2603",
                "ttype": "MarginTrading",
                "tdate": "20261119",
                "seqno": "15",
                "price": 61.0,
                "dseq": "WA02",
            },
        ),
        (DETAILS[1], FUTURES, {"stock": "TXFL6", "tdate": "20261119"}),
    ],
    ids=["position-stock", "position-futures", "profit-loss-stock", "profit-loss-futures"],
)
def test_detail_of_a_cached_item(api, detail, account, payload):
    method, listing, service, rows_key, records = detail
    listing.fill(api, account)
    api.session.reply(PORTFOLIO + service, with_account(account, **{rows_key: DETAIL_ROWS}))
    rows = getattr(api, method)(account, 1 if account is STOCK else 0)

    sent = api.session.last(PORTFOLIO + service).payload
    assert list(sent.items()) == [("account", account.dict()), *payload.items()]
    assert [(type(r), r.dseq) for r in rows] == [
        (records[account.account_type.value], "WA01"),
        (records[account.account_type.value], "WA03"),
    ]
    assert api._reqrep == {}


@details
def test_detail_sends_nothing_for_an_unknown_item(api, method, listing, service, rows_key, records):
    assert getattr(api, method)(STOCK, 0) == []  # account never listed
    listing.fill(api, STOCK)
    assert getattr(api, method)(STOCK, 7) == []  # no such id
    assert PORTFOLIO + service not in api.session.topics()

    cached = getattr(api, listing.cache)[KEYS["S"]]
    cached[1] = cached[1].model_copy(update={"id": 0})  # the first of two equal ids is used
    getattr(api, method)(STOCK, 0)
    assert "2330" in api.session.last(PORTFOLIO + service).payload.values()


@details
def test_detail_is_refused_in_simulation(sim_api, warnings, method, listing, service, rows_key, records):
    assert len(listing.fill(sim_api, STOCK)) == 2
    assert getattr(sim_api, method)(STOCK, 0) == []
    assert warnings == [f"Simulation not support {method} yet"] and len(sim_api.session.requests) == 1


def test_position_detail_neither_raises_nor_calls_back(api, caplog):
    POSITIONS.fill(api, STOCK)
    calls = []
    api.session.reply(PORTFOLIO + "position_detail", refused(500, "detail unavailable"))
    with caplog.at_level(logging.DEBUG, logger="quorvex"):
        assert api.list_position_detail(STOCK, 0, cb=calls.append) == []
    assert caplog.records == []

    api.session.reply(PORTFOLIO + "position_detail", with_account(STOCK, position_detail=DETAIL_ROWS))
    rows = api.list_position_detail(STOCK, 0, timeout=0, cb=calls.append)
    api.session.deliver()
    assert len(rows) == 2 and calls == [] and api._rep_callback_map == {}


def test_profit_loss_detail_raises_and_calls_back(api):
    PROFIT_LOSS.fill(api, STOCK)
    api.session.reply(PORTFOLIO + "profit_loss_detail", refused(500, "detail unavailable"))
    with pytest.raises(ServiceError, match="detail unavailable"):
        api.list_profit_loss_detail(STOCK, 0)

    calls = []
    api.session.reply(PORTFOLIO + "profit_loss_detail", with_account(STOCK, profitdetail=DETAIL_ROWS))
    rows = api.list_profit_loss_detail(STOCK, 0, timeout=0, cb=calls.append)
    api.session.deliver()
    assert calls == [rows] and len(rows) == 2


# ---- the summary -----------------------------------------------------------------------

SUMMARY = PORTFOLIO + "profitloss_sum"
DATES = ("2026-11-01", "2026-11-20")
SUMMARY_ROWS = {
    "S": [{"code": "2330", "quantity": 1, "pnl": 9000.0}, {"code": "2603", "quantity": 2}],
    "F": [{"code": "TXFL6", "direction": "Sell", "quantity": 1, "pnl": 4000.0}],
}


@pytest.mark.parametrize(
    "account,row",
    [(STOCK, pos.StockProfitLossSummary), (FUTURES, pos.FutureProfitLossSummary)],
    ids=["stock", "futures"],
)
def test_summary_is_filled_by_its_reply(api, account, row):
    rows = SUMMARY_ROWS[account.account_type.value]
    api.session.reply(SUMMARY, with_account(account, profitloss_sum=rows, total={"quantity": 3, "pnl": 8.0}))
    calls = []
    summary = api.list_profit_loss_summary(account, *DATES, timeout=0, cb=calls.append)
    assert (summary.status, summary.profitloss_summary, summary.total) == (
        FetchStatus.Fetching,
        [],
        pos.ProfitLossTotal(),
    )
    assert api.session.last(SUMMARY).payload == {
        "account": account.dict(),
        "begin_date": DATES[0],
        "end_date": DATES[1],
    }
    api.session.deliver()
    assert calls == [summary] and [type(r) for r in summary.profitloss_summary] == [row] * len(rows)
    assert summary.total == pos.ProfitLossTotal(quantity=3, pnl=8.0)


def test_summary_is_refused_in_simulation(sim_api, warnings):
    summary = sim_api.list_profit_loss_summary(STOCK, *DATES)
    assert (summary.status, summary.profitloss_summary, summary.total) == (
        FetchStatus.Fetched,
        [],
        pos.ProfitLossTotal(),
    )
    assert warnings == ["Simulation not support list_profit_loss_summary yet"]
    assert sim_api.session.requests == [] and sim_api.session._gen_reqid() == "corr-2"


@pytest.mark.parametrize(
    "reply,error",
    [
        (refused(500, "summary unavailable"), ServiceError),
        (with_account(STOCK, profitloss_sum=[]), TypeError),
    ],
    ids=["refused", "without-total"],
)
def test_summary_failures_surface_on_the_reply(api, reply, error):
    api.session.reply(SUMMARY, reply)
    summary = api.list_profit_loss_summary(STOCK, *DATES, timeout=0)
    with pytest.raises(error):
        api.session.deliver()
    assert summary.status == FetchStatus.Fetching and api._reqrep == {}
