"""Password, token and simulation logins, logout, the trade-report switch and error tracking."""

import datetime

import msgpack
import pytest
from nacl.signing import SigningKey
from pydantic import ValidationError

from conftest import freeze_clock, make_api, ok, refused
from quorvex.error import ServiceError, TokenError

PERSON = "A123456789"
FROZEN = datetime.datetime(2023, 11, 13, 16, 55, 11, 123456, tzinfo=datetime.timezone.utc)
SEED = bytes(range(32))
SECRET = "1thX6LZfHDZZKUs92febYZhYRcXddmzfzF2NvTkPNE"  # Base58 of SEED
ALPHABET = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"


def unb58(text):
    """Base58 decoding written out here, independent of the module's codec."""
    number = 0
    for char in text:
        number = number * 58 + ALPHABET.index(char)
    zeros = len(text) - len(text.lstrip("1"))
    return b"\0" * zeros + number.to_bytes((number.bit_length() + 7) // 8, "big")


def account(kind, account_id):
    return {"account_type": kind, "broker_id": "9A95", "account_id": account_id, "person_id": PERSON}


def after_construction(api):
    return [call[0] for call in api.session.calls[3:]]  # the constructor registers three callbacks


@pytest.fixture
def frozen(api_module, monkeypatch):
    freeze_clock(monkeypatch, api_module, FROZEN)


LOGINS = {
    "login": ("login_topic", lambda api: api.login(PERSON, "abc")),
    "token_login": ("token_login_topic", lambda api: api.token_login("api-key", SECRET, True, 30000)),
    "simulation_login": ("simulation_login_topic", lambda api: api.simulation_login("sim-token", PERSON)),
}


@pytest.mark.parametrize("simulation", [False, True])
@pytest.mark.parametrize(
    "password, hashed, sent",
    [("abc", False, "900150983cd24fb0d6963f7d28e17f72"), ("already-hashed", True, "already-hashed")],
)
def test_login_payload(api_module, simulation, password, hashed, sent):
    api = make_api(api_module, simulation=simulation)
    api.login(PERSON, password, hashed, False)
    request = api.session.last()
    assert request.topic == "api/v1/auth/login" and request.corrid is None
    assert list(request.payload.items()) == [
        ("person_id", PERSON),
        ("password", sent),
        ("simulation", simulation),
        ("hashed", True),
        ("version", "0.1.0"),
        ("subscribe_trade", False),
    ]


def test_login_connects_provisionally_then_installs_the_service_state(api, frozen):
    api.session.reply(
        api.login_topic,
        ok(
            {
                "accounts": [account("F", "f1"), account("S", "s1"), account("S", "s2"), account("F", "f2")],
                "token": "tok",
                "web_token": "web",
                "contract_download": True,
                "client_name": "assigned",
                "ip_address": "10.1.2.3",
            }
        ),
    )
    accounts, contract_download, web_token = api.login(PERSON, "abc")

    assert after_construction(api) == ["connect", "request", "set_session", "set_client_name"]
    connect = dict(api.session.calls[3][1])
    assert connect.pop("clientname") == "PYAPI/A123456789/1113/165511/123456/LOGINING"
    assert connect == api.__sol_setup__
    assert (api.session._token, api.session.client_name) == ("tok", "assigned")
    assert (contract_download, web_token) == (True, "web")
    assert accounts is api.accounts is api.list_accounts()
    assert [(type(a).__name__, a.account_id) for a in accounts] == [
        ("FutureAccount", "f1"),
        ("StockAccount", "s1"),
        ("StockAccount", "s2"),
        ("FutureAccount", "f2"),
    ]
    assert api.default_stock_account is accounts[1] and api.default_futopt_account is accounts[0]
    assert (api._public_ip, api._person_id) == ("10.1.2.3", PERSON)


@pytest.mark.parametrize("kind", LOGINS)
def test_a_bare_reply_gives_empty_defaults(api, kind):
    result = LOGINS[kind][1](api)
    assert result == (([], False, "") if kind != "simulation_login" else ([], False))
    assert api.default_stock_account is None and api.default_futopt_account is None
    assert api._public_ip == "0.0.0.0" and "set_client_name" not in after_construction(api)


def test_login_calls_login_check_and_ignores_its_answer(api, api_module, monkeypatch):
    seen = []
    monkeypatch.setattr(api_module, "login_check", lambda person_id: seen.append(person_id) or False)
    api.login(PERSON, "abc")
    assert seen == [PERSON]


@pytest.mark.parametrize(
    "person_id, password, setup, error",
    [
        (123, "abc", {}, "Argument 'person_id' has incorrect type (expected str, got int)"),
        (PERSON, b"abc", {}, "Argument 'password' has incorrect type (expected str, got bytes)"),
        (PERSON, "abc", None, "argument after ** must be a mapping, not NoneType"),
        (PERSON, "abc", {"clientname": "x"}, "got multiple values for keyword argument 'clientname'"),
    ],
)
def test_bad_arguments_and_settings_fail_before_sending(api, person_id, password, setup, error):
    api.__sol_setup__ = setup
    with pytest.raises(TypeError) as raised:
        api.login(person_id, password)
    assert error in str(raised.value) and api.session.requests == []


def test_a_rejected_account_leaves_the_token_uninstalled(api):
    api.session.reply(api.login_topic, ok({"accounts": [{"account_type": "S"}], "token": "tok"}))
    with pytest.raises(ValidationError):
        api.login(PERSON, "abc")
    assert api.session._token == "" and api.accounts == []


@pytest.mark.parametrize("kind", LOGINS)
@pytest.mark.parametrize("reply, error", [(refused(401, "bad credentials"), TokenError), ({}, ServiceError)])
def test_refused_login_disconnects_before_raising(api, kind, reply, error):
    api.accounts = previous = ["kept"]
    api.session.reply(getattr(api, LOGINS[kind][0]), reply)
    with pytest.raises(error):
        LOGINS[kind][1](api)
    # the error ends the call, so a recorded disconnect happened before it was raised
    assert after_construction(api)[-1] == "disconnect" and not api.session.sol
    assert api.accounts is previous


def test_a_raise_resp_error_that_returns_still_fails_the_login(api, api_module, monkeypatch):
    monkeypatch.setattr(api_module, "raise_resp_error", lambda *args: None)
    api.session.reply(api.login_topic, refused(500))
    with pytest.raises(UnboundLocalError, match="contract_download"):
        api.login(PERSON, "abc")


def test_token_login_signs_the_document_with_the_secret_seed(api, frozen):
    api.session.reply(api.token_login_topic, ok({"person_id": PERSON, "token": "tok"}))
    assert api.token_login("api-key", SECRET, False, 5000) == ([], False, PERSON)

    request = api.session.last()
    assert request.topic == "api/v1/auth/token_login" and list(request.payload) == ["msg", "sign"]
    raw = unb58(request.payload["msg"])
    assert list(msgpack.unpackb(raw).items()) == [
        ("key", "api-key"),
        ("simulation", False),
        ("version", "0.1.0"),
        ("source", "pyqv"),
        ("subscribe_trade", False),
        ("receive_window", 5000),
        ("ts", 1699894511.123456),
    ]
    SigningKey(SEED).verify_key.verify(raw, unb58(request.payload["sign"]))
    assert api.session.calls[3][1]["clientname"] == "PYAPI/api-key/1113/165511/123456/LOGINING"
    assert api._person_id is None and api.session._token == "tok"


@pytest.mark.parametrize("secret", ["0OIl", "3mJr7AoUXx2Wqd"])  # a bad character; a seed too short
def test_an_unusable_secret_is_named_without_being_shown(api, secret):
    with pytest.raises(ValueError, match="secret key") as error:
        api.token_login("api-key", secret, True, 30000)
    assert "secret key" in str(error.value) and secret not in str(error.value)
    assert api.session.requests == []


@pytest.mark.parametrize(
    "call, error",
    [
        (
            lambda api: api.token_login(7, SECRET, True, 1),
            "Argument 'key' has incorrect type (expected str, got int)",
        ),
        (
            lambda api: api.token_login("k", SECRET.encode(), True, 1),
            "Argument 'secret_key' has incorrect type (expected str, got bytes)",
        ),
        (lambda api: api.token_login("k", None, True, 1), "the secret key is missing"),
        (
            lambda api: api.simulation_login(7, PERSON),
            "Argument 'token' has incorrect type (expected str, got int)",
        ),
        (
            lambda api: api.simulation_login("t", 7),
            "Argument 'person_id' has incorrect type (expected str, got int)",
        ),
    ],
    ids=["key", "secret-bytes", "secret-none", "token", "person_id"],
)
def test_other_logins_refuse_credentials_of_the_wrong_type(api, call, error):
    with pytest.raises(TypeError) as raised:
        call(api)
    assert str(raised.value).startswith(error)
    assert api.session.requests == [] and api._person_id is None


def test_simulation_login_authenticates_with_the_callers_token(sim_api):
    sim_api.session.reply(
        sim_api.simulation_login_topic,
        ok({"accounts": [account("S", "s1")], "contract_download": True, "client_name": "sim", "token": "x"}),
    )
    accounts, contract_download = sim_api.simulation_login("sim-token", PERSON, False)
    assert after_construction(sim_api) == ["connect", "set_session", "request", "set_client_name"]
    assert sim_api.session._token == "sim-token"
    request = sim_api.session.last()
    assert request.topic == "api/v1/auth/simulation_login" and request.payload == {"subscribe_trade": False}
    assert contract_download is True and sim_api.default_stock_account is accounts[0]
    assert sim_api._person_id == PERSON


def test_logout_without_a_token_sends_nothing(api):
    assert api.logout() is True
    assert after_construction(api) == []


@pytest.mark.parametrize("reply", [ok(), refused(500)])
def test_logout_ends_the_session_whatever_the_reply(api, reply):
    api.session.reply(api.login_topic, ok({"token": "tok"}))
    api.session.reply(api.logout_topic, reply)
    api.login(PERSON, "abc")
    assert api.logout() is True
    assert (api.session.last().topic, api.session.last().payload) == ("api/v1/auth/logout", {})
    assert after_construction(api)[-2:] == ["disconnect", "set_session"] and api.session._token == ""
    sent = len(api.session.requests)
    assert api.logout() is True and len(api.session.requests) == sent


def test_subscribe_trade(api):
    from quorvex.account import StockAccount

    stock = StockAccount(broker_id="9A95", account_id="s1", person_id=PERSON)
    assert api.subscribe_trade(stock, False) is True
    request = api.session.last()
    assert request.topic == "api/v1/auth/subscribe_trade"
    assert list(request.payload.items()) == [
        ("account", stock.dict()),
        ("subscribe_trade", False),
        ("version", "0.1.0"),
    ]
    api.session.reply(api.subscribe_trade_topic, refused(400, "no such account"))
    with pytest.raises(ServiceError, match="no such account"):
        api.subscribe_trade(stock, True)
    assert "disconnect" not in after_construction(api)


@pytest.mark.parametrize("reply, on", [(ok({"error_tracking": False}), False), (ok(), True), ({}, True)])
def test_error_tracking_defaults_to_on(api, reply, on):
    api.session.reply(api.error_tracking_topic, reply)
    assert api.error_tracking("B987654321") is on
    assert api.session.last().payload == {"person_id": "B987654321"} and api._person_id == "B987654321"
