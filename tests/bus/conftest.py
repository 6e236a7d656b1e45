import re
import threading
import time

import pymqlink
import pytest
from loguru import logger


def wait_until(predicate, timeout=2.0):
    """Polls `predicate` until it holds; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.005)


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


class Recorder:
    """A callback that records its calls and the thread they ran on."""

    def __init__(self, effect=None):
        self.calls = []
        self.threads = set()
        self.effect = effect
        self._lock = threading.Lock()

    def __call__(self, *args):
        with self._lock:
            self.calls.append(args)
            self.threads.add(threading.get_ident())
        if self.effect is not None:
            return self.effect(*args)
        return None

    def wait(self, n=1, timeout=2.0):
        return wait_until(lambda: len(self.calls) >= n, timeout)


@pytest.fixture
def logged():
    """Records loguru messages (with exception text) logged during the test."""
    records = []
    sink = logger.add(lambda message: records.append(message), format="{message}\n{exception}", level="DEBUG")
    yield records
    logger.remove(sink)
