"""Records and an api instance for the order tests."""

import datetime

from conftest import make_api
from quorvex.account import FutureAccount, StockAccount
from quorvex.contracts import ComboContract, Future, Stock
from quorvex.order import Order, OrderStatus, Trade

STOCK_ACCOUNT = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0512345")
FUTURES_ACCOUNT = FutureAccount(person_id="A123456789", broker_id="F002000", account_id="1234567")
TSMC = Stock(exchange="TSE", code="2330", name="TSMC")
TXF = Future(exchange="TAIFEX", code="TXFL6")
SPREAD = ComboContract(legs=[dict(TXF.dict(), action="Buy"), dict(TXF.dict(), code="TXFA7", action="Sell")])


def order(**fields):
    return Order(**dict({"action": "Buy", "price": 580.0, "quantity": 3, "account": STOCK_ACCOUNT}, **fields))


def trade(order_id="ord-1", **status):
    return Trade(contract=TSMC, order=order(id=order_id), status=OrderStatus(id=order_id, **status))


def local_time(ts):
    return datetime.datetime.fromtimestamp(ts)


class Signer:
    """Stands in for prepare_ca: marks the order signed and remembers what it signed."""

    def __init__(self):
        self.signed = []

    def __call__(self, order):
        self.signed.append(order)
        return order.model_copy(update={"ca": f"sig-{len(self.signed)}"})


def order_api(module, simulation=False):
    api = make_api(module, simulation=simulation)
    api.prepare_ca = Signer()
    return api
