"""Place, change and cancel orders, and watch their reports keep each trade current.

Run: python examples/orders_and_reports.py
"""

import threading

from quorvex import Client
from quorvex.client import DealEvent, OrderEvent
from quorvex.error import OrderRefused
from quorvex.paper import DEMO


def main() -> None:
    with Client.paper(market_start="09:00", clock_speed=10) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret)
        client.use_demo_certificate()
        dealt = threading.Event()

        @client.on_order
        def on_order(event: OrderEvent) -> None:
            outcome = "done" if event.ok else "refused {}: {}".format(event.code, event.message)
            print(f"order report: {event.order_id} {event.operation} {outcome} -> {event.status}")

        @client.on_deal
        def on_deal(event: DealEvent) -> None:
            print(f"deal report: {event.order_id} {event.action} {event.quantity} @ {event.price}")
            dealt.set()

        stock = client.contract("2330")
        resting = client.buy(stock, price=stock.limit_down, quantity=2)
        client.update_order(resting, price=stock.limit_down + 5)  # a new limit price
        client.update_order(resting, quantity=1)  # one lot off
        print("resting:", resting.status.status, "price", resting.status.modified_price,
              "cancelled", resting.status.cancel_quantity)
        client.cancel_order(resting)
        print("after cancel:", resting.status.status)

        future = client.contract("TXF")
        crossing = client.buy(future, price=future.limit_up, quantity=1)
        dealt.wait(5)
        status = crossing.status
        print("crossing:", status.status, status.deal_quantity, "of", crossing.order.quantity)

        try:
            client.sell(stock, price=stock.limit_up + 100, quantity=1)
        except OrderRefused as refused:
            print(f"refused ({refused.sts_code}): {refused.detail}")

        for trade in client.update_status():
            print("{} {} {} {} -> {}".format(trade.order.id, trade.contract.code, trade.order.action,
                                             trade.order.quantity, trade.status.status))


if __name__ == "__main__":
    main()
