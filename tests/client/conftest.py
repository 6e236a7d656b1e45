"""Clients of the embedded paper broker: one bus per test, its market replaying a morning."""

import re
import uuid

import pytest

from quorvex import Client
from quorvex.paper import DEMO


@pytest.fixture(autouse=True)
def contracts_dir(tmp_path, monkeypatch):
    monkeypatch.setenv("QUORVEX_CONTRACTS_DIR", str(tmp_path / "contracts"))


@pytest.fixture
def bus(request):
    return "client-{}-{}".format(re.sub(r"[^A-Za-z0-9]", "", request.node.name)[:30], uuid.uuid4().hex[:6])


@pytest.fixture
def client(bus):
    """Logged in with the demo API key, the contract master loaded, a demo certificate active."""
    with Client.paper(bus, market_start="09:00", clock_speed=10, progress=False) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret)
        client.use_demo_certificate()
        yield client
