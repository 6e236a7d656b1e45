"""Stream ticks and best bids and asks of a stock and the near-month TXF future.

Run: python examples/streaming.py   (QUORVEX_EXAMPLE_SECONDS sets how long; 5 by default)
"""

import os
import time
from typing import Union

from quorvex import Client
from quorvex.backend.solace.bidask import BidAskFOPv1, BidAskSTKv1
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1
from quorvex.constant import Exchange
from quorvex.paper import DEMO

SECONDS = float(os.environ.get("QUORVEX_EXAMPLE_SECONDS", "5"))


def main() -> None:
    with Client.paper(market_start="09:00", clock_speed=10) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret)
        counts = {"ticks": 0, "bidasks": 0}

        @client.on_tick
        def on_tick(exchange: Exchange, tick: Union[TickSTKv1, TickFOPv1]) -> None:
            counts["ticks"] += 1
            print(f"{tick.datetime.time()} {tick.code:<8} {exchange} {tick.close:>10.2f} x {tick.volume}")

        @client.on_bidask
        def on_bidask(exchange: Exchange, quote: Union[BidAskSTKv1, BidAskFOPv1]) -> None:
            counts["bidasks"] += 1

        stock, future = client.contract("2330"), client.contract("TXF")  # TXF: its near month
        for contract in (stock, future):
            client.subscribe(contract, "tick")
            client.subscribe(contract, "bidask")
        time.sleep(SECONDS)
        for contract in (stock, future):
            client.unsubscribe(contract, "tick")
            client.unsubscribe(contract, "bidask")
        print("{ticks} ticks and {bidasks} bid/asks of {0} and {1}".format(stock.code, future.code, **counts))


if __name__ == "__main__":
    main()
