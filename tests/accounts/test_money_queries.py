"""Balance, margin and settlements: placeholders, both modes, refusals and replies without account."""
import datetime
import logging
from types import SimpleNamespace

import pytest
from conftest import ok, refused
from quorvex.account import FutureAccount, StockAccount
from quorvex.constant import FetchStatus
from quorvex.data import AccountBalance, Margin, SettlementV1
from quorvex.error import ServiceError

STOCK = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0512345", username="Wang")
FUTURES = FutureAccount(person_id="A123456789", broker_id="F002000", account_id="1234567", username="Wang")

MARGIN_FIELDS = [name for name in Margin.model_fields if name != "status"]

BALANCE_REPLY = {"account": STOCK.dict(), "acc_balance": 1250000.0, "date": "2026-11-20 14:30:00", "errmsg": ""}
MARGIN_REPLY = {"account": FUTURES.dict(), "margins": {"equity": 520000.0, "available_margin": 410000.0}}
SETTLEMENTS_REPLY = {
    "account": STOCK.dict(),
    "settlements": [
        {"date": "2026-11-20", "amount": -1200.0, "T": 0},
        {"date": "2026-11-23", "amount": 0.0, "T": 1},
        {"date": "2026-11-24", "amount": 35000.0, "T": 2},
    ],
}
SHEET_REPLY = {
    "account": STOCK.dict(),
    "settlements": {"t_money": -1200.0, "t1_money": 0.0, "t2_money": 35000.0, "t_day": "2026-11-20",
                    "t1_day": "2026-11-23", "t2_day": "2026-11-24"},
}


def filled_balance(record):
    assert (record.acc_balance, record.date) == (1250000.0, "2026-11-20 14:30:00")


def filled_margin(record):
    assert (record.equity, record.available_margin, record.fee) == (520000.0, 410000.0, 0.0)


def filled_settlements(rows):
    assert [type(r) for r in rows] == [SettlementV1] * 3
    assert [(r.T, r.amount) for r in rows] == [(0, -1200.0), (1, 0.0), (2, 35000.0)]


def filled_sheet(record):
    assert (record.t_money, record.t2_money, record.t1_day) == (-1200.0, 35000.0, "2026-11-23")


# method, account, topic, a full reply, a check of the filled result, the empty result
QUERIES = [
    ("account_balance", STOCK, "api/v1/portfolio/account_balance", BALANCE_REPLY, filled_balance,
     lambda r: r.acc_balance == 0 and r.date == "" and r.errmsg == ""),
    ("margin", FUTURES, "api/v1/portfolio/margin", MARGIN_REPLY, filled_margin,
     lambda r: all(getattr(r, name) == 0 for name in MARGIN_FIELDS)),
    ("settlements", STOCK, "api/v1/portfolio/settlements", SETTLEMENTS_REPLY, filled_settlements,
     lambda r: r == []),
    ("list_settlements", STOCK, "api/v1/portfolio/settlement", SHEET_REPLY, filled_sheet,
     lambda r: (r.t_money, r.t1_money, r.t2_money, r.t_day, r.t1_day, r.t2_day) == (0, 0, 0, "", "", "")),
]
QUERY_IDS = [q[0] for q in QUERIES]


def status_of(result):
    return getattr(result, "status", None)


@pytest.fixture(autouse=True)
def exit_hook_target(api_module, monkeypatch):
    # Instances register `logout` at construction; a build without the login area lacks it.
    if not hasattr(api_module.SolaceAPI, "logout"):
        monkeypatch.setattr(api_module.SolaceAPI, "logout", lambda self: None, raising=False)


@pytest.fixture
def warnings(api_module, monkeypatch):
    seen = []
    monkeypatch.setattr(api_module, "logger", SimpleNamespace(warning=seen.append))
    return seen


@pytest.mark.parametrize("method,account,topic,reply,check,empty", QUERIES, ids=QUERY_IDS)
def test_blocking_query_returns_the_filled_record(api, method, account, topic, reply, check, empty):
    api.session.reply(topic, ok(reply))
    calls = []
    result = getattr(api, method)(account, cb=calls.append)

    check(result)
    assert api.session.last(topic).payload == account.dict()
    assert api.session.last(topic).timeout == 5000
    # A blocking call hands its result back directly; the callback serves the other mode.
    assert calls == []
    assert api._reqrep == {} and api._rep_callback_map == {}
    if status_of(result) is not None:
        assert result.status == FetchStatus.Fetched


@pytest.mark.parametrize("method,account,topic,reply,check,empty", QUERIES, ids=QUERY_IDS)
def test_non_blocking_query_fills_the_same_object_later(api, method, account, topic, reply, check, empty):
    api.session.reply(topic, ok(reply))
    calls = []
    result = getattr(api, method)(account, timeout=0, cb=calls.append)

    assert empty(result) and calls == []
    if status_of(result) is not None:
        assert result.status == FetchStatus.Fetching
    corrid = api.session.last(topic).corrid
    assert api._rep_callback_map == {corrid: calls.append}

    api.session.deliver()
    check(result)
    assert calls == [result] and calls[0] is result
    assert api._reqrep == {} and api._rep_callback_map == {}


@pytest.mark.parametrize("method,account,topic,reply,check,empty", QUERIES, ids=QUERY_IDS)
def test_refused_reply_raises_and_forgets_the_request(api, method, account, topic, reply, check, empty):
    api.session.reply(topic, refused(400, "account not found"))
    with pytest.raises(ServiceError, match="status 400: account not found"):
        getattr(api, method)(account)
    assert api._reqrep == {} and api._rep_callback_map == {}

    calls = []
    result = getattr(api, method)(account, timeout=0, cb=calls.append)
    with pytest.raises(ServiceError):
        api.session.deliver()
    assert calls == [] and empty(result)
    assert api._reqrep == {} and api._rep_callback_map == {}


@pytest.mark.parametrize("method,account,topic,reply,check,empty", QUERIES, ids=QUERY_IDS)
def test_reply_without_account_is_logged_and_changes_nothing(api, caplog, method, account, topic, reply, check,
                                                             empty):
    api.session.reply(topic, ok(dict(reply, account={})))
    calls = []
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        result = getattr(api, method)(account, timeout=0, cb=calls.append)
        api.session.deliver()

    assert empty(result) and calls == [result]
    assert [r.msg for r in caplog.records] == [{}]
    if status_of(result) is not None:
        assert result.status == FetchStatus.Fetching


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
    # The correlation id was drawn before the refusal.
    assert sim_api.session._gen_reqid() == "corr-2"


def test_list_settlements_is_sent_in_simulation(sim_api, warnings):
    sim_api.session.reply("api/v1/portfolio/settlement", ok(SHEET_REPLY))
    filled_sheet(sim_api.list_settlements(STOCK))
    assert warnings == []


def test_balance_without_date_takes_the_local_time_of_arrival(api):
    api.session.reply("api/v1/portfolio/account_balance", ok({"account": STOCK.dict(), "acc_balance": 10}))
    before = datetime.datetime.now().replace(microsecond=0)
    result = api.account_balance(STOCK)
    stamped = datetime.datetime.strptime(result.date, "%Y-%m-%d %H:%M:%S")
    assert before <= stamped <= datetime.datetime.now()
    assert (result.acc_balance, result.errmsg) == (10, "")


def test_balance_error_message_is_kept_and_logged(api, caplog):
    api.session.reply("api/v1/portfolio/account_balance", ok(dict(BALANCE_REPLY, errmsg="ledger closed")))
    with caplog.at_level(logging.ERROR, logger="quorvex"):
        assert api.account_balance(STOCK).errmsg == "ledger closed"
    assert [r.msg for r in caplog.records] == ["ledger closed"]


def test_margin_passes_every_key_of_the_sheet_through(api):
    api.session.reply("api/v1/portfolio/margin", ok(dict(MARGIN_REPLY, margins={"equity": 1.0, "new_field": 7})))
    result = api.margin(FUTURES)
    assert (result.equity, result.new_field) == (1.0, 7)


@pytest.mark.parametrize(
    "method,topic,reply",
    [
        ("margin", "api/v1/portfolio/margin", {"account": FUTURES.dict(), "margins": None}),
        ("list_settlements", "api/v1/portfolio/settlement", {"account": STOCK.dict(), "settlements": None}),
    ],
)
def test_a_sheet_that_is_not_a_mapping_is_a_type_error(api, method, topic, reply):
    api.session.reply(topic, ok(reply))
    with pytest.raises(TypeError, match="must be a mapping"):
        getattr(api, method)(STOCK)


def test_reply_without_status_counts_as_refused(api):
    api.session.reply("api/v1/portfolio/account_balance", {"response": BALANCE_REPLY})
    with pytest.raises(ServiceError, match="no status code"):
        api.account_balance(STOCK)

