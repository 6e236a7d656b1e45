"""The demo authority's certificates through the Python binding: what the demo relies on, and
errors in the interpreter's own terms without the password in them."""

import os
import stat

import pytest

from quorvex.TWCA.ca import PyTWCASign, demo_authority_pem, issue_demo_certificate

PERSON = "F131331331"
PASSWORD = "Pw-never-shown-42"


def test_issued_file_activates_for_its_person_only(tmp_path):
    path = issue_demo_certificate(tmp_path / "me.pfx", PASSWORD, PERSON, days=2)
    assert path == str(tmp_path / "me.pfx")
    assert stat.S_IMODE(os.stat(path).st_mode) == 0o600
    signer = PyTWCASign(path, PASSWORD, PERSON, "127.0.0.1")
    assert signer.is_activate(), signer.activation_error
    assert PERSON in signer.subject
    assert signer.sign()
    assert not PyTWCASign(path, PASSWORD, "A123456789", None).is_activate()


def test_authority_is_the_same_in_every_call():
    assert demo_authority_pem() == demo_authority_pem()


@pytest.mark.parametrize(
    "args,error,says",
    [
        (("{dir}/missing/me.pfx", PASSWORD, PERSON), FileNotFoundError, "missing"),
        (("{dir}/me.pfx", "", PERSON), ValueError, "password is empty"),
        (("{dir}/me.pfx", PASSWORD, ""), ValueError, "person_id is empty"),
        (("{dir}/me.pfx", PASSWORD, PERSON, 0), ValueError, "expected a validity of 1 to 3650"),
        (("{dir}/me.pfx", 1234, PERSON), TypeError, "password expects str"),
        ((42, PASSWORD, PERSON), TypeError, "expected str, bytes or os.PathLike"),
    ],
)
def test_refusals(tmp_path, args, error, says):
    args = tuple(a.format(dir=tmp_path) if isinstance(a, str) and "{dir}" in a else a for a in args)
    with pytest.raises(error) as caught:
        issue_demo_certificate(*args)
    assert says in str(caught.value)
    assert PASSWORD not in str(caught.value)
