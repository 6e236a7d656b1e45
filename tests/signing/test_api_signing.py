"""SolaceAPI's certificate methods over the recording fake session, with real certificates."""

import sys
import types

import pytest

from quorvex.account import StockAccount
from quorvex.constant import Action
from quorvex.data import CASign
from quorvex.order import Order

from .pki import PASSWORD, PERSON, PUBLIC_IP

OTHER = "B222222222"


def stock_account(person_id=""):
    return StockAccount(person_id=person_id, broker_id="9A95", account_id="1234567")


def order_for(account):
    return Order(action=Action.Buy, price=580.0, quantity=1, account=account)


@pytest.fixture
def logged_in(api):
    """What a login leaves behind for signing: the person and the public address."""
    api._person_id = PERSON
    api._public_ip = PUBLIC_IP
    return api


@pytest.fixture
def other_file(authority):
    return authority.issue("other-person.p12", CN=OTHER)


def raised_exactly(excinfo, text):
    # The backend's own errors are the plain Exception, not a subclass of it.
    assert type(excinfo.value) is Exception
    assert str(excinfo.value) == text


def test_activation_needs_a_login_first(api, person_file):
    with pytest.raises(Exception, match="Login To Activate Ca") as excinfo:
        api.activate_ca(str(person_file), PASSWORD, PERSON)
    raised_exactly(excinfo, "Login To Activate Ca")
    assert api.activated_ca == {}


def test_activation_registers_a_signer_bound_to_the_login_address(logged_in, person_file):
    assert logged_in.activate_ca(str(person_file), PASSWORD, PERSON) is True
    signer = logged_in.activated_ca[PERSON]
    assert signer.is_activate()
    assert (signer.person_id, signer.public_ip) == (PERSON, PUBLIC_IP)


def test_a_failed_activation_keeps_the_working_signer(logged_in, person_file):
    assert logged_in.activate_ca(str(person_file), PASSWORD, PERSON)
    working = logged_in.activated_ca[PERSON]
    assert logged_in.activate_ca(str(person_file), "wrong", PERSON) is False
    assert logged_in.activate_ca("/no/such/file.p12", PASSWORD, OTHER) is False
    assert logged_in.activated_ca == {PERSON: working}


def test_errors_of_the_signing_module_pass_unchanged(logged_in, person_file):
    with pytest.raises(ValueError, match="store 1 is not supported"):
        logged_in.activate_ca(str(person_file), PASSWORD, PERSON, 1)


class RecordingSigner:
    def __init__(self, module, *args):
        self.args = args
        module.made.append(self)

    def is_activate(self):
        return True


def recording_module(name):
    module = types.ModuleType(name)
    module.made = []
    module.PyTWCASign = lambda *args: RecordingSigner(module, *args)
    return module


@pytest.mark.parametrize(
    "platform,chosen",
    [("darwin", "quorvex.backend.solace.ca"), ("linux", "quorvex.TWCA.ca"), ("win32", "quorvex.TWCA.ca")],
)
def test_the_signing_module_is_chosen_by_platform_at_each_call(monkeypatch, logged_in, platform, chosen):
    fakes = {name: recording_module(name) for name in ("quorvex.backend.solace.ca", "quorvex.TWCA.ca")}
    for name, module in fakes.items():
        monkeypatch.setitem(sys.modules, name, module)
    monkeypatch.setattr(sys, "platform", platform)
    assert logged_in.activate_ca("cert.pfx", "pw", "A1", 0) is True
    (made,) = fakes[chosen].made
    assert made.args == ("cert.pfx", "pw", "A1", PUBLIC_IP, 0)
    assert all(not m.made for n, m in fakes.items() if n != chosen)


@pytest.mark.parametrize(
    "person, other_active, signed_by",
    [("", False, PERSON), (OTHER, True, OTHER), (OTHER, False, PERSON)],
    ids=["no-person", "own-signer", "fallback"],
)
def test_an_order_is_signed_by_its_persons_signer_else_the_logged_in_users(
    logged_in, person_file, other_file, openssl_verify, person, other_active, signed_by
):
    logged_in.activate_ca(str(person_file), PASSWORD, PERSON)
    if other_active:
        logged_in.activate_ca(str(other_file), PASSWORD, OTHER)
    order = order_for(stock_account(person))
    assert logged_in.prepare_ca(order) is order
    assert order.account.person_id == (person or PERSON)  # an order without a person gets the user
    verified, stamp = openssl_verify(order.ca)
    assert verified and stamp.startswith(f"{signed_by}|{PUBLIC_IP}|")


def test_an_order_without_account_is_refused(logged_in, person_file):
    logged_in.activate_ca(str(person_file), PASSWORD, PERSON)
    order = order_for(None)
    with pytest.raises(Exception, match="not provide account") as excinfo:
        logged_in.prepare_ca(order)
    raised_exactly(excinfo, f"{order} not provide account.")


@pytest.mark.parametrize(
    "sign",
    [
        lambda api: api.prepare_ca(order_for(stock_account(OTHER))),
        lambda api: api.prepare_casign("text", stock_account(OTHER)),
    ],
    ids=["prepare_ca", "prepare_casign"],
)
def test_signing_without_any_signer_asks_for_activation(logged_in, sign):
    with pytest.raises(Exception, match="Please activate ca") as excinfo:
        sign(logged_in)
    raised_exactly(excinfo, f"Please activate ca for person_id: {OTHER}")


def test_a_text_signature_comes_back_with_its_text(logged_in, person_file, openssl_verify):
    logged_in.activate_ca(str(person_file), PASSWORD, PERSON)
    account = stock_account()
    text = f"{account} | 2330 | 1000"
    signed = logged_in.prepare_casign(text, account)
    assert isinstance(signed, CASign)
    assert signed.plain_text == text
    assert account.person_id == PERSON
    assert openssl_verify(signed.signature, content=text) == (True, text)
    assert not openssl_verify(signed.signature, content=text.replace("1000", "9000"))[0]


def test_signers_outlive_logout_state(logged_in, person_file):
    logged_in.activate_ca(str(person_file), PASSWORD, PERSON)
    logged_in._public_ip = None
    assert logged_in.prepare_casign("x", stock_account()).plain_text == "x"
