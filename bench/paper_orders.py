"""Orders per second through SolaceAPI, the in-process bus and the paper broker.

Run: PYTHONPATH=python python bench/paper_orders.py [ORDERS]

Places ORDERS orders a round (default 3,000): IOC buys at the day's lower limit, which the
broker accepts, holds funds for, finds nothing to match and cancels, so every order makes
the same journey and the book does not grow. Modes: blocking (each call waits for its reply)
and non-blocking (all sent, each trade completed by its reply on the callback thread, then
the caller's callback), with the order and cancel reports of each order delivered to the
order callback, and once more with those reports switched off. The baseline is a bare
SolClient request/reply of the same order payload to a C++ echo service on another bus of
the same process that answers on the sender's thread, in the same mode: the ratio says how
many echo round trips one order costs. A second figure, the floor, is the record and codec
work one order cannot do without, done in a loop with no bus, broker or threads: the trade
with its provisional status, the payload encoded, the reply decoded into a new status and a
rebuilt order, and the two reports decoded. Order signing is left out (prepare_ca returns
the order as it is): the signer has its own cost, and the broker does not check signatures of
accounts that are not signed. Best of three rounds.
"""

import datetime
import sys
import threading
import time

import pymqlink
from quorvex.backend.solace.api import SolaceAPI
from quorvex.constant import Status
from quorvex.contracts import Stock
from quorvex.order import Order, OrderStatus, Trade
from quorvex.paper import DEMO, PaperBroker, PaperBrokerConfig

ROUNDS = 3


def best(run, count):
    """Orders (or round trips) per second of the best round."""
    return count / min(run(count) for _ in range(ROUNDS))


class Completion:
    """Counts callbacks until `expected` have arrived."""

    def __init__(self, expected):
        self.left = expected
        self.done = threading.Event()
        self.lock = threading.Lock()

    def __call__(self, *_):
        with self.lock:
            self.left -= 1
            if self.left == 0:
                self.done.set()


class Floor:
    """The record and codec work of one order, from messages the broker really sent."""

    def __init__(self, orders):
        api = orders.api
        reports = []
        api.session.set_p2p_callback(lambda topic, msg: reports.append(msg))
        self.payload = orders.payload()
        reply = api.session.request(api.place_order_topic, self.payload, timeout=5000)
        deadline = time.monotonic() + 5
        while len(reports) < 2 and time.monotonic() < deadline:
            time.sleep(0.01)
        api.session.set_p2p_callback(api.on_p2p_wrap)
        assert len(reports) >= 2, "the order and cancel reports did not arrive"
        self.reply = pymqlink.packb(reply)
        self.report = pymqlink.packb(reports[0])
        self.contract = orders.contract
        self.order = Order(**orders.fields)

    def run(self, count):
        contract, order, payload = self.contract, self.order, self.payload
        start = time.perf_counter()
        for _ in range(count):
            trade = Trade(contract=contract, order=order, status=OrderStatus(status=Status.Inactive))
            pymqlink.packb(payload)
            response = pymqlink.unpackb(self.reply)["response"]
            status = response["status"]
            fields = dict(id=response["order"]["id"])
            fields["order_datetime"] = datetime.datetime.fromtimestamp(status["order_ts"])
            fields.update(status)
            trade.__dict__["status"] = OrderStatus(**fields)
            merged = dict(order.__dict__, **response["order"])
            merged["account"] = order.account
            trade.__dict__["order"] = Order(**merged)
            pymqlink.unpackb(self.report)
            pymqlink.unpackb(self.report)
        return time.perf_counter() - start


class Echo:
    """The baseline: SolClient round trips to a C++ service that returns the payload."""

    def __init__(self, payload):
        self.payload = payload
        self.service = pymqlink.EchoService("inproc://bench-echo", "bench/>", True)
        self.client = pymqlink.SolClient()
        self.client.connect("inproc://bench-echo", "vpn", "user", "password", "bench-echo")

    def blocking(self, count):
        start = time.perf_counter()
        for _ in range(count):
            self.client.request("bench/order", self.payload, timeout=5000)
        return time.perf_counter() - start

    def callbacks(self, count):
        completion = Completion(count)
        start = time.perf_counter()
        for _ in range(count):
            self.client.request(
                "bench/order", self.payload, corrid=self.client._gen_reqid(), timeout=0, cb=completion
            )
        assert completion.done.wait(60), "echo replies missing"
        return time.perf_counter() - start

    def close(self):
        self.client.disconnect()
        self.service.close()


class Orders:
    """SolaceAPI placing orders on a paper broker of its own bus."""

    def __init__(self):
        config = PaperBrokerConfig.demo()
        config.contracts_size = 2000
        self.broker = PaperBroker(config).attach("bench-orders")
        self.api = api = SolaceAPI(self.broker.host, "vpn", "user", "password", False)
        api.login(DEMO.second.person_id, DEMO.second.password)
        api.prepare_ca = lambda order: order
        self.reports = Completion(0)
        api.set_order_callback(lambda state, message: self.reports())
        self.contract = Stock(exchange="TSE", code="2330")
        self.fields = dict(
            action="Buy", price=900, quantity=1, account=api.default_stock_account, order_type="IOC"
        )

    def payload(self):
        return {"contract": self.contract.dict(), "order": Order(**self.fields).dict(), "tft": False}

    def blocking(self, count):
        orders = [Order(**self.fields) for _ in range(count)]
        start = time.perf_counter()
        for order in orders:
            self.api.place_order(self.contract, order)
        return time.perf_counter() - start

    def callbacks(self, count):
        orders = [Order(**self.fields) for _ in range(count)]
        completion = Completion(count)
        start = time.perf_counter()
        for order in orders:
            self.api.place_order(self.contract, order, timeout=0, cb=completion)
        assert completion.done.wait(60), "placement replies missing"
        return time.perf_counter() - start

    def reports_off(self):
        self.api.subscribe_trade(self.api.default_stock_account, False)

    def close(self):
        self.api.logout()
        self.broker.close()


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 3000
    orders = Orders()
    echo = Echo(orders.payload())
    try:
        floor = best(Floor(orders).run, count)
        rows = [
            ("blocking", best(echo.blocking, count), best(orders.blocking, count)),
            ("non-blocking with callbacks", best(echo.callbacks, count), best(orders.callbacks, count)),
        ]
        orders.reports_off()
        rows.append(("  the same, reports off", best(echo.callbacks, count), best(orders.callbacks, count)))
    finally:
        orders.close()
        echo.close()
    print("%d orders a round, best of %d" % (count, ROUNDS))
    print("floor: the record and codec work alone, %.0f orders/s" % floor)
    print("%-30s %12s %12s %16s %16s" % ("mode", "echo/s", "orders/s", "echoes per order", "floor / order"))
    for mode, echo_rate, order_rate in rows:
        print(
            "%-30s %12.0f %12.0f %16.2f %16.2f"
            % (mode, echo_rate, order_rate, echo_rate / order_rate, floor / order_rate)
        )


if __name__ == "__main__":
    main()
