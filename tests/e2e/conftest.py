"""SolaceAPI on a real in-process bus (one bus per test), answered by the scripted broker."""

import re

import pytest

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

    def make(**settings):
        api = module.SolaceAPI("inproc://" + bus_name, "vpn", "bus-user", "bus-pw", False, **settings)
        made.append(api)
        return api

    yield make
    for api in made:
        if api.session.sol:
            api.session.disconnect()


@pytest.fixture
def api(make_api, broker):
    """Logged in with a password."""
    api = make_api()
    api.login(PERSON, PASSWORD)
    return api
