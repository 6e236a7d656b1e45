"""Logins, argument errors and how the backend's failures reach a user of Client."""

import math

import pytest

from conftest import FakeSession, ok
from quorvex import Client
from quorvex.error import (
    ConnectionLost,
    ContractNotFound,
    LoginRefused,
    NotInSimulation,
    QuorvexError,
    RequestTimeout,
)
from quorvex.paper import DEMO


@pytest.mark.parametrize(
    "login",
    [
        lambda c: c.login(DEMO.person_id, "hunter2-secret"),
        lambda c: c.login_api_key("no-such-key", DEMO.api_secret),
    ],
)
def test_a_refused_login_is_login_refused(bus, login):
    with Client.paper(bus) as client, pytest.raises(LoginRefused, match="refused the login") as refused:
        login(client)
    assert refused.value.status_code == 401 and "hunter2" not in str(refused.value)


def test_a_secret_key_that_is_no_key_names_the_argument_not_the_value(bus):
    with Client.paper(bus) as client, pytest.raises(ValueError, match="secret_key is not usable") as bad:
        client.login_api_key(DEMO.api_key, "0OIl-not-base58")
    assert "0OIl" not in str(bad.value)


@pytest.mark.parametrize(
    "make, says",
    [
        (lambda: Client("localhost:1883"), "host must be a broker address"),
        (lambda: Client("paper://", timeout_ms=0), "timeout_ms must be a whole number above 0"),
        (lambda: Client.paper("no/slash"), "name must be a bus name"),
        (lambda: Client.paper(market_start="9am"), "market_start must be a Taipei time"),
        (lambda: Client.paper(clock_speed=-1), "clock_speed must be above 0"),
    ],
)
def test_bad_settings_name_the_argument(make, says):
    with pytest.raises(ValueError, match=says):
        make()


@pytest.mark.parametrize(
    "call, says",
    [
        (lambda c: c.buy("2330", math.nan, 1), "price must be a finite number"),
        (lambda c: c.buy("2330", 1000, 0), "quantity must be a whole number above 0"),
        (lambda c: c.buy("2330", 1000, 1, order_type="GTC"), "order terms: .*order_type"),
        (lambda c: c.sell("9999X", 10, 1), "unknown code '9999X'"),
        (lambda c: c.subscribe("2330", "trades"), "quote_type must be one of 'tick', 'bidask', 'quote'"),
        (lambda c: c.scanners(count=201), "count must be a whole number from 1 to 200"),
        (lambda c: c.kbars("2330", "2026/01/05"), "start must be a date or a 'YYYY-MM-DD' text"),
        (lambda c: c.cancel_order("A0001"), "trade must be a Trade returned by place_order"),
    ],
)
def test_bad_input_names_the_argument_and_what_was_expected(client, call, says):
    with pytest.raises((ValueError, ContractNotFound), match=says):
        call(client)


def test_calls_before_login_say_so(bus):
    with Client.paper(bus) as client, pytest.raises(QuorvexError, match="not logged in"):
        client.positions()


def test_simulation_refusals_are_errors_not_empty_records(bus):
    with Client.paper(bus, simulation=True, progress=False) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret, contracts=False)
        with pytest.raises(NotInSimulation, match="account_balance is not offered to simulation"):
            client.account_balance()


@pytest.fixture
def scripted(monkeypatch):
    """A Client whose session is the recording fake: replies are scripted per topic."""
    import quorvex.backend.solace.api as module

    monkeypatch.setattr(module, "SolClient", FakeSession)
    monkeypatch.setattr(module, "atexit", type("Hooks", (), {"register": staticmethod(lambda f: f)}))
    client = Client("inproc://scripted", timeout_ms=50, progress=False)
    session = client.api.session
    session.reply("api/v1/auth/login", ok({"accounts": [DEMO.stock_account], "token": "t"}))
    client.login(DEMO.person_id, "pw", contracts=False)
    return client, session


def test_a_reply_that_never_comes_is_request_timeout(scripted):
    client, session = scripted
    session.reply("api/v1/portfolio/account_balance", None)
    with pytest.raises(RequestTimeout, match="no reply on api/v1/portfolio/account_balance"):
        client.account_balance()


def test_a_session_down_event_makes_later_calls_connection_lost(scripted):
    client, _session = scripted
    events = []
    client.on_event(events.append)
    client.api.on_event_wrap(1, 3, "3 attempts failed", "down")
    assert events[0].down
    with pytest.raises(ConnectionLost, match="3 attempts failed"):
        client.positions()


def test_a_login_takes_this_brokers_contracts_file_of_the_day_instead_of_downloading(bus):
    with Client.paper(bus, progress=False) as first:
        first.login_api_key(DEMO.api_key, DEMO.api_secret)
        listed = len(first.contracts)
    with Client.paper(bus, progress=False) as second:
        downloads = []
        second.api.fetch_all_contract = lambda *args: downloads.append(args)
        second.login_api_key(DEMO.api_key, DEMO.api_secret)
        assert downloads == [] and len(second.contracts) == listed
    with Client.paper(bus + "-other", progress=False) as elsewhere:
        elsewhere.login_api_key(DEMO.api_key, DEMO.api_secret)
        assert elsewhere.contracts.host == elsewhere.host
