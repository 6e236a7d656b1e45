"""SolaceAPI on a real in-process bus (one bus per test), answered by the scripted broker."""

from __future__ import annotations

import base64
import re
import subprocess
import threading
from typing import Any, Callable

import pytest

from bus.helpers import Recorder
from signing.pki import PASSWORD as CA_PASSWORD
from signing.pki import Authority

from .broker import PASSWORD, PERSON, Broker


@pytest.fixture
def bus_name(request) -> str:
    return "e2e-" + re.sub(r"[^A-Za-z0-9_.-]", "_", request.node.name)


@pytest.fixture
def broker(bus_name):
    service = Broker("inproc://" + bus_name)
    yield service
    service.responder.close()


@pytest.fixture
def make_api(monkeypatch, bus_name):
    """Builds SolaceAPI instances with a real session on this test's bus; all are disconnected
    at the end. Instances stay out of the interpreter's exit hooks."""
    import quorvex.backend.solace.api as module

    monkeypatch.setattr(module, "atexit", type("NoExitHooks", (), {"register": staticmethod(lambda f: f)}))
    made = []

    def make(simulation: bool = False, **settings: Any):
        api = module.SolaceAPI("inproc://" + bus_name, "vpn", "bus-user", "bus-pw", simulation, **settings)
        made.append(api)
        return api

    yield make
    for api in made:
        if api.session.sol:
            api.session.disconnect()


@pytest.fixture
def api(make_api, broker):
    """Logged in with a password; requests from here on carry TOKEN and CLIENT_NAME."""
    api = make_api()
    api.login(PERSON, PASSWORD)
    return api


@pytest.fixture(scope="session")
def certificate(tmp_path_factory):
    authority = Authority(tmp_path_factory.mktemp("e2e-pki"))
    return authority, authority.issue("person.p12")


@pytest.fixture
def signing_api(api, certificate):
    """Logged in, with PERSON's certificate activated (the signer embeds the login's address)."""
    assert api.activate_ca(str(certificate[1]), CA_PASSWORD, PERSON)
    return api


@pytest.fixture
def verify_signature(certificate, tmp_path):
    """Checks a Base64 CMS signature against the test authority with the openssl command;
    returns the signed content. `content` is given for detached (text) signatures."""

    def verify(signature: str, content: str | None = None) -> str:
        der = tmp_path / "signature.der"
        der.write_bytes(base64.b64decode(signature, validate=True))
        cmd = [
            "openssl",
            "cms",
            "-verify",
            "-binary",
            "-inform",
            "DER",
            "-in",
            str(der),
            "-CAfile",
            str(certificate[0].pem_path),
        ]
        if content is not None:
            (tmp_path / "content").write_bytes(content.encode())
            cmd += ["-content", str(tmp_path / "content")]
        done = subprocess.run(cmd, capture_output=True, check=False, timeout=10)
        assert done.returncode == 0, done.stderr.decode()
        return done.stdout.decode()

    return verify


@pytest.fixture(params=["blocking", "non-blocking"])
def query(request):
    """Runs a query in the parametrized mode and returns what the caller ends up with: the
    blocking result, or what the callback received on the messaging thread (the very object
    the call returned, where it returned one)."""

    def run(method: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
        if request.param == "blocking":
            return method(*args, timeout=2000, **kwargs)
        done = Recorder()
        result = method(*args, timeout=0, cb=done, **kwargs)
        assert done.wait(), "the reply never reached the callback"
        assert threading.get_ident() not in done.threads
        (delivered,) = done.calls[0]
        assert result is None or delivered is result
        return delivered

    return run
