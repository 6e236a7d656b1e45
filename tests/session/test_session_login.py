"""Password, token and simulation logins, logout, the trade-report switch and error tracking."""
import datetime
import types

import msgpack
import pytest
from conftest import make_api, ok, refused
from nacl.signing import SigningKey, VerifyKey
from pydantic import ValidationError
from quorvex.error import ServiceError, TokenError

PERSON = "A123456789"
# 2023-11-13 16:55:11.123456 UTC
FROZEN = datetime.datetime(2023, 11, 13, 16, 55, 11, 123456, tzinfo=datetime.timezone.utc)
SEED = bytes(range(32))

ALPHABET = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"


def b58(data: bytes) -> str:
    """Base58 written out here so the module's own codec is checked against it."""
    number = int.from_bytes(data, "big")
    text = ""
    while number:
        number, digit = divmod(number, 58)
        text = ALPHABET[digit] + text
    return "1" * (len(data) - len(data.lstrip(b"\0"))) + text


def unb58(text: str) -> bytes:
    number = 0
    for char in text:
        number = number * 58 + ALPHABET.index(char)
    body = number.to_bytes((number.bit_length() + 7) // 8, "big")
    return b"\0" * (len(text) - len(text.lstrip("1"))) + body


SECRET = b58(SEED)


def account(kind, account_id):
    return {"account_type": kind, "broker_id": "9A95", "account_id": account_id, "person_id": PERSON}


FUTURE_STOCK_STOCK_FUTURE = [account("F", "f1"), account("S", "s1"), account("S", "s2"), account("F", "f2")]


@pytest.fixture
def frozen(api_module, monkeypatch):
    """Freezes the module's clock at FROZEN; `frozen[0]` may be moved."""
    moment = [FROZEN]

    class Clock(datetime.datetime):
        @classmethod
        def now(cls, tz=None):
            return moment[0].astimezone(tz) if tz else moment[0].replace(tzinfo=None)

        @classmethod
        def utcnow(cls):
            return moment[0].replace(tzinfo=None)

    monkeypatch.setattr(api_module, "datetime", types.SimpleNamespace(datetime=Clock, timezone=datetime.timezone))
    return moment


def do_login(api, kind, **overrides):
    """Runs one kind of login with its usual arguments; returns its result."""
    if kind == "login":
        return api.login(overrides.get("person_id", PERSON), overrides.get("password", "abc"))
    if kind == "token_login":
        return api.token_login("api-key", overrides.get("secret_key", SECRET), True, 30000)
    return api.simulation_login("sim-token", PERSON)


LOGINS = ["login", "token_login", "simulation_login"]
TOPIC = {"login": "login_topic", "token_login": "token_login_topic", "simulation_login": "simulation_login_topic"}


@pytest.fixture(params=[False, True], ids=["normal", "simulation"])
def any_api(request, api_module):
    return make_api(api_module, simulation=request.param)


# ---------------------------------------------------------------- password login


@pytest.mark.parametrize(
    "password, hashed, sent",
    [("abc", False, "900150983cd24fb0d6963f7d28e17f72"), ("already-hashed", True, "already-hashed")],
)
def test_login_sends_the_hashed_password_in_key_order(any_api, password, hashed, sent):
    any_api.login(PERSON, password, hashed, False)
    request = any_api.session.last()
    assert request.topic == "api/v1/auth/login"
    assert list(request.payload.items()) == [
        ("person_id", PERSON),
        ("password", sent),
        ("simulation", any_api._simulation),
        ("hashed", True),
        ("version", "0.1.0"),
        ("subscribe_trade", False),
    ]
    assert any_api.hash_password == sent
    assert request.corrid is None and request.cb is None


def test_login_connects_under_a_provisional_name_then_installs_the_service_state(api, frozen):
    api.session.reply(api.login_topic, ok({
        "accounts": FUTURE_STOCK_STOCK_FUTURE, "token": "tok", "web_token": "web", "contract_download": True,
        "client_name": "PYAPI/assigned", "ip_address": "10.1.2.3",
    }))
    accounts, contract_download, web_token = api.login(PERSON, "abc")

    kinds = [call[0] for call in api.session.calls[3:]]  # after the constructor's callbacks
    assert kinds == ["connect", "request", "set_session", "set_client_name"]
    connect = api.session.calls[3][1]
    assert connect["clientname"] == "PYAPI/A123456789/1113/165511/123456/LOGINING"
    assert {k: v for k, v in connect.items() if k != "clientname"} == api.__sol_setup__
    assert api.session._token == "tok" and api.session.client_name == "PYAPI/assigned"
    assert (contract_download, web_token) == (True, "web")
    assert accounts is api.accounts is api.list_accounts()
    assert [a.account_id for a in accounts] == ["f1", "s1", "s2", "f2"]
    assert [type(a).__name__ for a in accounts] == ["FutureAccount", "StockAccount", "StockAccount", "FutureAccount"]
    assert api.default_stock_account is accounts[1]
    assert api.default_futopt_account is accounts[0]
    assert api._public_ip == "10.1.2.3" and api._person_id == PERSON


@pytest.mark.parametrize("kind", LOGINS)
def test_a_bare_reply_gives_empty_defaults(api, kind):
    result = do_login(api, kind)
    assert result[0] == [] and result[1] is False
    if kind == "login":
        assert result[2] == ""
    elif kind == "token_login":
        assert result[2] == ""  # the service did not say whose key it was
    else:
        assert len(result) == 2
    assert api.default_stock_account is None and api.default_futopt_account is None
    assert api._public_ip == "0.0.0.0"
    assert "set_client_name" not in [call[0] for call in api.session.calls]


def test_login_calls_login_check_and_ignores_its_answer(api, api_module, monkeypatch):
    seen = []
    monkeypatch.setattr(api_module, "login_check", lambda person_id: seen.append(person_id) or False)
    api.login(PERSON, "abc")
    assert seen == [PERSON]


@pytest.mark.parametrize(
    "person_id, password, bad",
    [(123, "abc", "Argument 'person_id' has incorrect type (expected str, got int)"),
     (PERSON, b"abc", "Argument 'password' has incorrect type (expected str, got bytes)")],
)
def test_login_rejects_wrong_argument_types_before_connecting(api, person_id, password, bad):
    with pytest.raises(TypeError) as error:
        api.login(person_id, password)
    assert str(error.value) == bad
    assert api.session.requests == [] and not api.session.sol


def test_login_lets_none_through_the_argument_check(api):
    api.login(None, "hash", True)
    assert api.session.last().payload["person_id"] is None


@pytest.mark.parametrize(
    "setup, message",
    [(None, "argument after ** must be a mapping, not NoneType"),
     ({"host": "h", "clientname": "x"}, "got multiple values for keyword argument 'clientname'")],
)
def test_connection_settings_errors_are_the_interpreters(api, setup, message):
    api.__sol_setup__ = setup
    with pytest.raises(TypeError) as error:
        api.login(PERSON, "abc")
    assert message in str(error.value)
    assert api.session.requests == []


def test_a_rejected_account_leaves_the_token_uninstalled(api):
    api.session.reply(api.login_topic, ok({"accounts": [{"account_type": "S"}], "token": "tok"}))
    with pytest.raises(ValidationError):
        api.login(PERSON, "abc")
    assert api.session._token == "" and api.accounts == []


# ---------------------------------------------------------------- refusals


@pytest.mark.parametrize("kind", LOGINS)
@pytest.mark.parametrize("reply, error", [(refused(401, "bad credentials"), TokenError), ({}, ServiceError)])
def test_refused_login_disconnects_before_raising(api, kind, reply, error):
    api.accounts = previous = ["kept"]
    api.session.reply(getattr(api, TOPIC[kind]), reply)
    disconnected_when_raised = []
    original = api.session.disconnect

    def disconnect():
        original()
        disconnected_when_raised.append(True)

    api.session.disconnect = disconnect
    with pytest.raises(error):
        do_login(api, kind)
    assert disconnected_when_raised == [True] and not api.session.sol
    assert api.accounts is previous


def test_a_raise_resp_error_that_returns_still_fails_the_login(api, api_module, monkeypatch):
    monkeypatch.setattr(api_module, "raise_resp_error", lambda *args: None)
    api.session.reply(api.login_topic, refused(500))
    with pytest.raises(UnboundLocalError, match="contract_download"):
        api.login(PERSON, "abc")


# ---------------------------------------------------------------- token login


def decode_document(payload):
    raw = unb58(payload["msg"])
    return raw, msgpack.unpackb(raw, raw=False)


def test_token_login_signs_the_document_with_the_secret_seed(api, frozen):
    api.session.reply(api.token_login_topic, ok({"person_id": PERSON, "token": "tok"}))
    result = api.token_login("api-key", SECRET, False, 5000)
    assert result == ([], False, PERSON)

    request = api.session.last()
    assert request.topic == "api/v1/auth/token_login" and list(request.payload) == ["msg", "sign"]
    raw, document = decode_document(request.payload)
    assert list(document.items()) == [
        ("key", "api-key"),
        ("simulation", False),
        ("version", "0.1.0"),
        ("source", "pyqv"),
        ("subscribe_trade", False),
        ("receive_window", 5000),
        ("ts", FROZEN.timestamp()),
    ]
    assert isinstance(document["ts"], float) and document["ts"] % 1 == pytest.approx(0.123456)
    VerifyKey(bytes(SigningKey(SEED).verify_key)).verify(raw, unb58(request.payload["sign"]))
    assert b58(raw) == request.payload["msg"]
    assert api.session.calls[3][1]["clientname"] == "PYAPI/api-key/1113/165511/123456/LOGINING"
    assert api._person_id is None  # the key names the person, not the caller


def test_token_login_is_deterministic_under_a_fixed_clock(api, frozen):
    payloads = []
    for moment in (FROZEN, FROZEN, FROZEN + datetime.timedelta(microseconds=1)):
        frozen[0] = moment
        api.token_login("api-key", SECRET, True, 30000)
        payloads.append(api.session.last().payload)
    assert payloads[0] == payloads[1]
    assert payloads[2]["msg"] != payloads[0]["msg"] and payloads[2]["sign"] != payloads[0]["sign"]


@pytest.mark.parametrize("secret", ["0OIl", b58(b"short seed")])
def test_an_unusable_secret_is_named_without_being_shown(api, secret):
    with pytest.raises(ValueError) as error:
        api.token_login("api-key", secret, True, 30000)
    assert "secret key" in str(error.value) and "32-byte" in str(error.value)
    assert secret not in str(error.value)
    assert api.session.requests == []


# ---------------------------------------------------------------- simulation login


def test_simulation_login_authenticates_with_the_callers_token(sim_api):
    sim_api.session.reply(sim_api.simulation_login_topic, ok({
        "accounts": [account("S", "s1")], "contract_download": True, "client_name": "sim", "token": "ignored",
    }))
    accounts, contract_download = sim_api.simulation_login("sim-token", PERSON, False)
    calls = [call[0] for call in sim_api.session.calls[3:]]
    assert calls == ["connect", "set_session", "request", "set_client_name"]
    assert sim_api.session._token == "sim-token"
    request = sim_api.session.last()
    assert request.topic == "api/v1/auth/simulation_login" and request.payload == {"subscribe_trade": False}
    assert contract_download is True and accounts[0].account_id == "s1"
    assert sim_api.default_stock_account is accounts[0] and sim_api._person_id == PERSON


# ---------------------------------------------------------------- logout


def test_logout_without_a_token_sends_nothing(api):
    assert api.logout() is True
    assert api.session.requests == [] and "disconnect" not in [c[0] for c in api.session.calls]


@pytest.mark.parametrize("reply", [ok(), refused(500)])
def test_logout_ends_the_session_whatever_the_reply(api, reply):
    api.session.reply(api.login_topic, ok({"token": "tok"}))
    api.session.reply(api.logout_topic, reply)
    api.login(PERSON, "abc")
    assert api.logout() is True
    assert api.session.last().topic == "api/v1/auth/logout" and api.session.last().payload == {}
    assert [c[0] for c in api.session.calls[-2:]] == ["disconnect", "set_session"]
    assert api.session._token == "" and not api.session.sol
    sent = len(api.session.requests)
    assert api.logout() is True and len(api.session.requests) == sent


# ---------------------------------------------------------------- trade reports and error tracking


def test_subscribe_trade_sends_the_account_and_reports_success(api):
    from quorvex.account import StockAccount

    stock = StockAccount(broker_id="9A95", account_id="s1", person_id=PERSON)
    assert api.subscribe_trade(stock, False) is True
    request = api.session.last()
    assert request.topic == "api/v1/auth/subscribe_trade"
    assert list(request.payload.items()) == [
        ("account", stock.dict()), ("subscribe_trade", False), ("version", "0.1.0")]

    api.session.reply(api.subscribe_trade_topic, refused(400, "no such account"))
    api.session.sol = True
    with pytest.raises(ServiceError, match="no such account"):
        api.subscribe_trade(stock, True)
    assert api.session.sol  # a refused switch keeps the connection


@pytest.mark.parametrize(
    "reply, expected",
    [(ok({"error_tracking": False}), False), (ok({}), True), ({"status": {"status_code": 200}}, True)],
)
def test_error_tracking(api, reply, expected):
    api.session.reply(api.error_tracking_topic, reply)
    assert api.error_tracking("B987654321") is expected
    assert api.session.last().payload == {"person_id": "B987654321"}
    assert api._person_id == "B987654321"
