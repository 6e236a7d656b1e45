"""Helpers of the end-to-end tests on the embedded paper broker."""

import threading

from bus.helpers import wait_until
from quorvex.contracts import Stock
from quorvex.order import Order

CERT_PASSWORD = "paper-cert"


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


def download_contracts(api):
    api.fetch_all_contract(timeout=0)
    assert wait_until(lambda: api.Contracts.status.value == "Fetched", 10)
    return api.Contracts


def front_future(api):
    """The near-month TXF contract, from a full contract download."""
    txf = [c for c in download_contracts(api).Futures.TXF.values() if c.code.startswith("TXF")]
    return min(txf, key=lambda c: c.delivery_date)


def order(api, action, price, quantity, account=None, **fields):
    return Order(
        action=action, price=price, quantity=quantity, account=account or api.default_stock_account, **fields
    )
