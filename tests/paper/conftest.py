"""SolaceAPI sessions on the embedded paper broker: each test gets its own paper:// bus, so its
broker starts fresh and stops when the test's sessions log out."""

import re
import uuid

import pytest

from bus.helpers import Recorder
from quorvex.backend.solace.api import SolaceAPI
from quorvex.paper import DEMO
from signing.pki import Authority

from .support import CERT_PASSWORD


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    """A certificate per demo person, from a throw-away authority."""
    authority = Authority(tmp_path_factory.mktemp("paper-pki"))
    return {
        person: str(authority.issue(person + ".p12", password=CERT_PASSWORD, CN=person))
        for person in (DEMO.person_id, DEMO.second.person_id)
    }


@pytest.fixture
def host(request):
    name = re.sub(r"[^A-Za-z0-9]", "", request.node.name)[:40]
    return "paper://e2e-{}-{}".format(name, uuid.uuid4().hex[:8])


@pytest.fixture(autouse=True)
def contracts_dir(tmp_path, monkeypatch):
    monkeypatch.setenv("QUORVEX_CONTRACTS_DIR", str(tmp_path / "contracts"))


@pytest.fixture
def make_api(host, certificates):
    """make_api(person=DEMO, simulation=False, login="password"|"token"|"simulation") -> a
    logged-in SolaceAPI with the person's certificate active and its order reports collected
    in `api.reports`. Every session logs out at the end of the test."""
    made = []

    def make(person=DEMO, simulation=False, login="password"):
        api = SolaceAPI(host, "vpn", "user", "bus-password", simulation)
        made.append(api)
        if login == "password":
            api.login(person.person_id, person.password)
        elif login == "token":
            api.token_login(person.api_key, person.api_secret, True, 5000)
        else:
            api.simulation_login(person.simulation_token, person.person_id)
        assert api.activate_ca(certificates[person.person_id], CERT_PASSWORD, person.person_id)
        api.reports = Recorder()
        api.set_order_callback(api.reports)
        return api

    yield make
    for api in made:
        api.logout()
