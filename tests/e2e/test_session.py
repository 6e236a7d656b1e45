"""Logins, logout and session events over the bus."""

import hashlib
import re
import time

import msgpack
import pytest

import pymqlink
from bus.helpers import Recorder, wait_until
from pymqlink import _core
from quorvex.account import FutureAccount, StockAccount
from quorvex.error import TokenError

from .broker import (
    API_KEY,
    API_SEED,
    CLIENT_NAME,
    PASSWORD,
    PERSON,
    PUBLIC_IP,
    SIM_TOKEN,
    STOCK_ACCOUNT,
    TOKEN,
    b58decode,
    b58encode,
)


def logining(name):
    """The provisional client name of a login: PYAPI/{name}/MMDD/HHMMSS/ffffff/LOGINING (UTC)."""
    return re.escape("PYAPI/" + name) + r"/\d{4}/\d{6}/\d{6}/LOGINING"


def assert_logged_in(api, broker, login_service, token=TOKEN):
    """The typed accounts are in place, and the next request carries the session token and the
    service's client name on the same connection."""
    assert [type(a) for a in api.list_accounts()] == [StockAccount, FutureAccount]
    assert (api.default_stock_account.account_id, api.default_futopt_account.account_id) == (
        "0512345",
        "1234567",
    )
    assert api._public_ip == PUBLIC_IP
    assert api.subscribe_trade(api.default_stock_account, False) is True
    later = broker.last("auth/subscribe_trade")
    assert (later.token, later.client_name) == (token, CLIENT_NAME)
    assert later.session_id == broker.last(login_service).session_id
    assert later.payload["account"]["account_id"] == "0512345"


def test_password_login(make_api, broker):
    api = make_api()
    assert api.login(PERSON, PASSWORD)[1:] == (True, "web-e2e")
    login = broker.last("auth/login")
    assert re.fullmatch(logining(PERSON), login.client_name)
    assert login.token == ""
    assert login.payload["password"] == hashlib.md5(PASSWORD.encode()).hexdigest()
    assert login.payload["hashed"] is True
    assert_logged_in(api, broker, "auth/login")


def test_token_login_sends_a_signed_document(make_api, broker):
    api = make_api()
    before = time.time()
    assert api.token_login(API_KEY, b58encode(API_SEED), True, 5000)[1:] == (True, PERSON)
    login = broker.last("auth/token_login")
    assert re.fullmatch(logining(API_KEY), login.client_name)
    document = msgpack.unpackb(b58decode(login.payload["msg"]))
    assert list(document) == [
        "key",
        "simulation",
        "version",
        "source",
        "subscribe_trade",
        "receive_window",
        "ts",
    ]
    assert document["source"] == "pyqv" and document["receive_window"] == 5000
    assert before - 1 <= document["ts"] <= time.time() + 1
    assert_logged_in(api, broker, "auth/token_login")


def test_simulation_login_sends_the_token_as_session_token(make_api, broker):
    api = make_api(simulation=True)
    api.simulation_login(SIM_TOKEN, PERSON)
    login = broker.last("auth/simulation_login")
    assert (login.token, login.payload) == (SIM_TOKEN, {"subscribe_trade": True})
    assert re.fullmatch(logining(PERSON), login.client_name)
    assert_logged_in(api, broker, "auth/simulation_login", token=SIM_TOKEN)


@pytest.mark.parametrize(
    "simulation, login",
    [
        (False, lambda api: api.login(PERSON, "wrong")),
        (False, lambda api: api.token_login(API_KEY, b58encode(bytes(32)), True, 5000)),
        (True, lambda api: api.simulation_login("stale-token", PERSON)),
    ],
    ids=["password", "token", "simulation"],
)
def test_refused_login_disconnects(make_api, broker, simulation, login):
    api = make_api(simulation=simulation)
    with pytest.raises(TokenError):
        login(api)
    assert api.session.sol is False
    assert api.list_accounts() == []
    with pytest.raises(pymqlink.BusError):
        api.subscribe_trade(STOCK_ACCOUNT, True)


def test_logout_sends_and_clears_the_token(api, broker):
    assert api.logout() is True
    logout = broker.last("auth/logout")
    assert (logout.token, logout.payload) == (TOKEN, {})
    assert (api.session._token, api.session.sol) == ("", False)
    assert api.logout() is True
    assert len(broker.requests("auth/logout")) == 1


def test_session_events_reach_the_user_handlers(make_api, broker, bus_name):
    api = make_api(reconnect_retries=1, reconnect_retry_wait=10)
    events, down = Recorder(), Recorder()
    api.set_event_callback(events)
    api.set_session_down_callback(down)
    api.login(PERSON, PASSWORD)
    assert events.wait(1)
    assert events.calls[0][:2] == (0, 0) and events.calls[0][3] == "connected"
    assert bus_name in events.calls[0][2]

    assert _core._inproc_sever(bus_name, api.session.session_id)
    assert events.wait(3)
    assert [call[3] for call in events.calls[1:3]] == ["reconnecting", "reconnected"]

    _core._inproc_shutdown(bus_name)
    try:
        assert down.wait(1), [call[3] for call in events.calls]
        assert wait_until(lambda: events.calls[-1][3] == "down")
        assert events.calls[-1][:2] == (1, 3)
    finally:
        _core._inproc_shutdown(bus_name, down=False)
