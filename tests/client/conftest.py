"""Clients of the embedded paper broker: one bus per test, its market replaying a morning."""

import os
import re
import tempfile
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
def client(bus, tmp_path, monkeypatch):
    """Logged in with the demo API key, the contract master loaded, a demo certificate active
    (and its key file already removed from the temporary folder)."""
    scratch = tmp_path / "tmp"
    scratch.mkdir()
    monkeypatch.setattr(tempfile, "tempdir", str(scratch))
    with Client.paper(bus, market_start="09:00", clock_speed=10, progress=False) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret)
        client.use_demo_certificate()
        assert os.listdir(str(scratch)) == []
        yield client
