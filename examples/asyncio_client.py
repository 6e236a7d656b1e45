"""The same with asyncio: awaitable orders and queries, quotes and reports as async iterators.

Run: python examples/asyncio_client.py
"""

import asyncio

from quorvex.aio import Client
from quorvex.paper import DEMO


async def main() -> None:
    async with Client.paper(market_start="09:00", clock_speed=10) as client:
        await client.login_api_key(DEMO.api_key, DEMO.api_secret)
        await client.use_demo_certificate()

        async def first_ticks(code: str, count: int) -> None:
            seen = 0
            async for tick in client.quotes(code, "tick"):
                print("tick", tick.code, tick.datetime.time(), tick.close, tick.volume)
                seen += 1
                if seen == count:
                    break

        async def first_deal() -> None:
            async for deal in client.deal_events():
                print("deal", deal.order_id, deal.code, deal.quantity, "@", deal.price)
                break

        watching = asyncio.ensure_future(first_deal())
        await asyncio.sleep(0)  # let the watcher start listening before the order goes out
        stock = client.contract("2330")
        trade, balance = await asyncio.gather(
            client.buy(stock, price=stock.limit_up, quantity=1), client.account_balance()
        )
        print("bought:", trade.status.status, "balance before:", balance.acc_balance)
        await asyncio.wait_for(watching, 5)
        await asyncio.wait_for(first_ticks("TXF", 3), 10)
        for position in await client.positions():
            print("position", position.code, position.quantity, position.pnl)


if __name__ == "__main__":
    asyncio.run(main())
