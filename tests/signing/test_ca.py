import datetime
import threading

import pytest

from quorvex.TWCA.ca import CASignError, PyTWCASign

from .pki import PASSWORD, PERSON, PUBLIC_IP


@pytest.fixture(scope="module")
def signer(person_file):
    return PyTWCASign(str(person_file), PASSWORD, PERSON, PUBLIC_IP, 0)


def test_a_valid_certificate_activates(signer):
    assert signer.is_activate()
    assert signer.activation_error == ""
    assert PERSON in signer.subject
    assert (signer.person_id, signer.public_ip) == (PERSON, PUBLIC_IP)


@pytest.mark.parametrize(
    "text",
    ["A123456789 | 2330 | 1000", "台積電 | 預收 | 1000", "", "line one\r\nline two\n"],
    ids=["ascii", "chinese", "empty", "line-endings"],
)
def test_text_signature_verifies_with_openssl_and_a_tampered_text_fails(signer, openssl_verify, text):
    signature = signer.get_sign(text)
    assert "\n" not in signature
    assert openssl_verify(signature, content=text) == (True, text)
    ok, _ = openssl_verify(signature, content=text + " ")
    assert not ok


def test_order_signature_carries_person_address_and_utc_second(signer, openssl_verify):
    before = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
    signature = signer.sign()
    after = datetime.datetime.now(datetime.timezone.utc)
    ok, content = openssl_verify(signature)
    assert ok
    person, address, stamp = content.split("|")
    assert (person, address) == (PERSON, PUBLIC_IP)
    signed_at = datetime.datetime.strptime(stamp, "%Y%m%d%H%M%S").replace(tzinfo=datetime.timezone.utc)
    assert before <= signed_at <= after


def test_signing_from_several_threads_gives_valid_signatures(signer, openssl_verify):
    # The GIL is released while OpenSSL signs, so these run truly in parallel.
    results = {}

    def work(n):
        results[n] = [signer.get_sign(f"order {n}") for _ in range(20)]

    threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert sorted(results) == [0, 1, 2, 3]
    for n, signatures in results.items():
        assert openssl_verify(signatures[-1], content=f"order {n}")[0]


def test_signer_for_another_file_naming_the_person_by_serial_number(authority):
    # A bytes password and no address are taken as the interpreter gives them.
    path = authority.issue("serial.p12", CN="Wang Da-Ming", serialNumber="B987654321")
    assert PyTWCASign(path, PASSWORD.encode(), "b987654321", None).is_activate()


def test_refused_certificate_is_inactive_and_cannot_sign(person_file):
    # Which certificates are refused, and why, is the signing core's test.
    signer = PyTWCASign(person_file, PASSWORD + "x", PERSON, PUBLIC_IP)
    assert signer.is_activate() is False
    assert "wrong password" in signer.activation_error
    for sign in (signer.sign, lambda: signer.get_sign("text")):
        with pytest.raises(CASignError, match="is not active") as raised:
            sign()
        assert PASSWORD not in str(raised.value)
    assert PASSWORD not in repr(signer) + signer.activation_error


@pytest.mark.parametrize("store", [1, 2, -1])
def test_stores_other_than_the_file_are_refused(person_file, store):
    with pytest.raises(ValueError, match=f"store {store} is not supported; expected 0"):
        PyTWCASign(person_file, PASSWORD, PERSON, PUBLIC_IP, store)


@pytest.mark.parametrize(
    "args,error,message",
    [
        ((42, PASSWORD, PERSON, PUBLIC_IP), TypeError, "ca_path expects a path"),
        (("x.p12", 42, PERSON, PUBLIC_IP), TypeError, "ca_password expects str or bytes, got int"),
        (("x.p12", PASSWORD + "\ud800", PERSON, PUBLIC_IP), ValueError, "ca_password is not valid Unicode"),
        (("x\0.p12", PASSWORD, PERSON, PUBLIC_IP), ValueError, "must not contain a NUL"),
        (("x.p12", PASSWORD, "A1|B2", PUBLIC_IP), ValueError, "must not contain '|'"),
    ],
    ids=["path-type", "password-type", "password-surrogate", "path-nul", "person-separator"],
)
def test_bad_arguments_are_refused_without_showing_the_password(args, error, message):
    with pytest.raises(error, match=message) as raised:
        PyTWCASign(*args)
    assert PASSWORD not in str(raised.value)


def test_get_sign_wants_text(signer):
    with pytest.raises(TypeError, match="get_sign plain_text expects str, got bytes"):
        signer.get_sign(b"bytes")


def test_repr_names_the_person_and_never_the_password(signer):
    assert repr(signer) == "PyTWCASign(person_id='A123456789', public_ip='203.0.113.7', active=True)"


def test_backend_path_is_the_same_module():
    from quorvex.backend.solace import ca

    assert ca.PyTWCASign is PyTWCASign and ca.CASignError is CASignError
