"""Helpers of the end-to-end tests on the embedded paper broker."""

import threading
import time

from quorvex.contracts import Stock
from quorvex.order import Order

CERT_PASSWORD = "paper-cert"


def wait_until(predicate, timeout=3.0):
    """Polls `predicate` until it holds; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.005)


class Reports:
    """Collects what set_order_callback delivers, for waiting on."""

    def __init__(self):
        self.items = []
        self.lock = threading.Lock()

    def __call__(self, state, message):
        with self.lock:
            self.items.append((state, message))

    def wait(self, count, timeout=3.0):
        wait_until(lambda: len(self.items) >= count, timeout)
        with self.lock:
            return list(self.items)

    def states(self):
        with self.lock:
            return [state.value for state, _ in self.items]


def later(api, query, *args):
    """Runs ``api.<query>(*args)`` non-blocking; returns (what it returned, what cb received)."""
    got = []
    done = threading.Event()
    returned = getattr(api, query)(*args, timeout=0, cb=lambda r: (got.append(r), done.set()))
    assert done.wait(3), "no reply to " + query
    return returned, got[0]


def run(api, blocking, query, *args):
    """Runs ``api.<query>(*args)`` blocking, or non-blocking returning what the callback received
    (the very object the call returned, where it returned one)."""
    if blocking:
        return getattr(api, query)(*args)
    returned, delivered = later(api, query, *args)
    assert returned is None or returned is delivered
    return delivered


def stock(code="2330"):
    return Stock(exchange="TSE", code=code)


def front_future(api):
    """The near-month TXF contract, from a full contract download."""
    api.fetch_all_contract(timeout=0)
    assert wait_until(lambda: api.Contracts.status.value == "Fetched", 10)
    txf = [c for c in api.Contracts.Futures.TXF.values() if c.code.startswith("TXF")]
    return min(txf, key=lambda c: c.delivery_date)


def order(api, action, price, quantity, account=None, **fields):
    return Order(
        action=action, price=price, quantity=quantity, account=account or api.default_stock_account, **fields
    )
