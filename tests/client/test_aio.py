"""The asyncio front: awaited orders and queries on the non-blocking path, event iterators."""

import asyncio
import threading

import pytest

from quorvex.aio import Client
from quorvex.constant import Status
from quorvex.error import OrderRefused
from quorvex.paper import DEMO


def test_orders_queries_and_events_without_blocking_the_loop(bus, monkeypatch):
    blocking = []
    real_wait = threading.Event.wait

    def watched_wait(self, timeout=None):
        # A reply waited for on a thread has a time-out (starting a thread waits without one).
        if threading.current_thread() is threading.main_thread() and timeout is not None:
            blocking.append(timeout)
        return real_wait(self, timeout)

    async def scenario():
        async with Client.paper(bus, market_start="09:00", clock_speed=10, progress=False) as client:
            await client.login_api_key(DEMO.api_key, DEMO.api_secret)
            await client.use_demo_certificate()
            monkeypatch.setattr(threading.Event, "wait", watched_wait)
            events = client.order_events()
            stock = client.contract("2330")
            buying = client.buy(stock, stock.limit_down, 2)
            trade, balance = await asyncio.gather(buying, client.account_balance())
            assert trade.status.status is Status.Submitted and balance.acc_balance > 0
            first = await asyncio.wait_for(events.__anext__(), 5)
            assert first.trade is trade and first.operation == "New"

            await client.update_order(trade, price=stock.limit_down + 5, quantity=1)
            assert (trade.status.modified_price, trade.status.cancel_quantity) == (stock.limit_down + 5, 1)
            await client.cancel_order(trade)
            assert trade.status.status is Status.Cancelled
            with pytest.raises(OrderRefused, match=r"74003.*limits"):
                await client.buy(stock, stock.limit_up + 100, 1)
            assert len((await client.kbars(stock)).ts) > 0
            await events.aclose()

    asyncio.run(scenario())
    assert blocking == []  # nothing waited on a thread event from the loop's thread
