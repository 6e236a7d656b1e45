"""Fixtures of the bus tests: a bus per test, connected clients, a responder, captured logs."""

import re

import pytest
from loguru import logger

import pymqlink


@pytest.fixture
def bus_name(request):
    return "pytest-" + re.sub(r"[^A-Za-z0-9_.-]", "_", request.node.nodeid)


@pytest.fixture
def host(bus_name):
    return "inproc://" + bus_name


@pytest.fixture
def responder(host):
    with pymqlink.Responder(host) as r:
        yield r


@pytest.fixture
def connect(host):
    """Makes connected clients; all are disconnected at the end of the test."""
    clients = []

    def make(client_name="PYAPI/TESTER", **settings):
        client = pymqlink.SolClient()
        client.connect(host, "vpn", "user", "s3cret-pw", client_name, **settings)
        clients.append(client)
        return client

    yield make
    for client in clients:
        client.disconnect()


@pytest.fixture
def client(connect):
    return connect()


@pytest.fixture
def logged():
    """Records loguru messages (with exception text) logged during the test."""
    records = []
    sink = logger.add(
        lambda message: records.append(message),
        format="{message}\n{exception}",
        level="DEBUG",
        backtrace=True,
        diagnose=True,
    )
    yield records
    logger.remove(sink)
