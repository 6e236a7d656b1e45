"""``quorvex.aio.Client``: the front object for asyncio programs.

Queries and orders are sent on the backend's non-blocking path and awaited: the event loop
never waits on the network. Only the logins block in the backend, so they run in the loop's
default executor. Quotes and order events come as async iterators fed from the messaging
thread. Errors are those of ``quorvex.Client`` (``quorvex.error``)::

    async with quorvex.aio.Client.paper(market_start="09:00", clock_speed=10) as client:
        await client.login_api_key(api_key, secret_key)
        trade = await client.buy("2330", price=1000, quantity=1)
        async for event in client.order_events():
            ...
"""

import asyncio
import contextlib
import datetime
import functools
from typing import Any, AsyncIterator, Callable, List, Optional, Sequence, Tuple, TypeVar, Union

from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.client import Client as _SyncClient
from quorvex.client import DealEvent, OrderEvent
from quorvex.client._backend import ReplyWaiter
from quorvex.constant import QuoteType
from quorvex.contracts import BaseContract, Contract, Contracts
from quorvex.data import AccountBalance, DailyQuotes, Kbars, Margin, Snapshot, Ticks
from quorvex.error import RequestTimeout
from quorvex.frames import RecordList
from quorvex.order import Order, Trade

__all__ = ["Client"]

T = TypeVar("T")
DateLike = Union[str, datetime.date]
Code = Union[str, BaseContract]
# Quotes or events waiting in an iterator that is not being read; older ones are dropped first.
_QUEUE_LIMIT = 10000


class _Reply(ReplyWaiter):
    """Completes a future on the event loop with a reply that arrives on the messaging thread."""

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self.future: asyncio.Future[Any] = loop.create_future()

    def _settle(self, settle: Callable[[Any], None], value: Any) -> None:
        if not self.future.done():
            settle(value)

    def _post(self, settle: Callable[[Any], None], value: Any) -> None:
        with contextlib.suppress(RuntimeError):  # a closed loop: nobody waits any more
            self.loop.call_soon_threadsafe(self._settle, settle, value)

    def __call__(self, result: Any) -> None:
        self._post(self.future.set_result, result)

    def fail(self, error: BaseException) -> None:
        self._post(self.future.set_exception, error)


class Client:
    """The asyncio form of ``quorvex.Client``: the same arguments, awaitable calls.

    Safe to use from the event loop's thread; handlers and iterators are fed from the
    messaging thread through the loop. ``sync`` is the underlying ``quorvex.Client``.
    """

    def __init__(self, host: str, **settings: Any) -> None:
        """A client of the broker at ``host``; settings as ``quorvex.Client``."""
        self.sync = _SyncClient(host, **settings)

    @classmethod
    def paper(cls, name: str = "paper", **settings: Any) -> "Client":
        """A client of the embedded paper broker; arguments as ``quorvex.Client.paper``."""
        client = cls.__new__(cls)
        client.sync = _SyncClient.paper(name, **settings)
        return client

    async def __aenter__(self) -> "Client":
        return self

    async def __aexit__(self, *exc_info: Any) -> None:
        await self.close()

    def __repr__(self) -> str:
        return "aio." + repr(self.sync)

    # ------------------------------------------------------------------ sending

    async def _run(self, call: Callable[..., T], *args: Any, **kwargs: Any) -> T:
        """Run a call of the sync client with its backend request sent non-blocking."""
        loop = asyncio.get_running_loop()
        sent: List[Tuple[asyncio.Future[Any], Optional[Callable[[Any], Any]], str]] = []

        def defer(what: str, backend_args: Tuple[Any, ...], wrap: Optional[Callable[[Any], Any]]) -> None:
            reply = _Reply(loop)
            getattr(self.sync.api, what)(*backend_args, 0, reply)
            sent.append((reply.future, wrap, what))

        sync = self.sync
        sync._deferring.to = defer
        try:
            with sync._calling(getattr(call, "__name__", "call"), needs_login=False):
                call(*args, **kwargs)
        finally:
            sync._deferring.to = None
        result: Any = None
        for future, wrap, what in sent:
            try:
                value = await asyncio.wait_for(future, sync._timeout_ms / 1000.0)
            except asyncio.TimeoutError:
                raise RequestTimeout("no reply to {} within {} ms".format(what, sync._timeout_ms)) from None
            result = wrap(value) if wrap is not None else value
        return result  # type: ignore[no-any-return]

    async def _in_executor(self, call: Callable[..., T], *args: Any, **kwargs: Any) -> T:
        loop = asyncio.get_running_loop()
        return await loop.run_in_executor(None, functools.partial(call, *args, **kwargs))

    # ------------------------------------------------------------------ session

    async def login(self, person_id: str, password: str, **options: Any) -> List[Account]:
        """As ``quorvex.Client.login`` (run in the executor: the backend's login blocks)."""
        return await self._in_executor(self.sync.login, person_id, password, **options)

    async def login_api_key(self, api_key: str, secret_key: str, **options: Any) -> List[Account]:
        """As ``quorvex.Client.login_api_key`` (run in the executor: the backend's login blocks)."""
        return await self._in_executor(self.sync.login_api_key, api_key, secret_key, **options)

    async def logout(self) -> None:
        """End the session."""
        await self._in_executor(self.sync.logout)

    async def close(self) -> None:
        """Log out if logged in; never raises."""
        await self._in_executor(self.sync.close)

    async def use_demo_certificate(self) -> None:
        """As ``quorvex.Client.use_demo_certificate`` (paper trading only)."""
        await self._in_executor(self.sync.use_demo_certificate)

    @property
    def contracts(self) -> Contracts:
        """The contract master (see ``quorvex.Client.contracts``)."""
        return self.sync.contracts

    def contract(self, code: Code) -> Contract:
        """The contract of a code, symbol or futures product (see ``quorvex.Client.contract``)."""
        return self.sync.contract(code)

    @property
    def stock_account(self) -> Optional[StockAccount]:
        """The first stock account of the login."""
        return self.sync.stock_account

    @property
    def futures_account(self) -> Optional[FutureAccount]:
        """The first futures and options account of the login."""
        return self.sync.futures_account

    @property
    def trades(self) -> List[Trade]:
        """Every trade of this session, each order once."""
        return self.sync.trades

    # ------------------------------------------------------------------ orders

    async def place_order(self, contract: Code, order: Order) -> Trade:
        """As ``quorvex.Client.place_order``, awaited."""
        return await self._run(self.sync.place_order, contract, order)

    async def buy(self, contract: Code, price: float, quantity: int, **terms: Any) -> Trade:
        """As ``quorvex.Client.buy``, awaited."""
        return await self._run(self.sync.buy, contract, price, quantity, **terms)

    async def sell(self, contract: Code, price: float, quantity: int, **terms: Any) -> Trade:
        """As ``quorvex.Client.sell``, awaited."""
        return await self._run(self.sync.sell, contract, price, quantity, **terms)

    async def cancel_order(self, trade: Trade) -> Trade:
        """As ``quorvex.Client.cancel_order``, awaited."""
        return await self._run(self.sync.cancel_order, trade)

    async def update_order(
        self, trade: Trade, price: Optional[float] = None, quantity: Optional[int] = None
    ) -> Trade:
        """As ``quorvex.Client.update_order``; a price and a quantity are two requests, in turn."""
        status = trade.status
        if price is not None and price != (status.modified_price or trade.order.price):
            await self._run(self.sync.update_order, trade, price=price)
        elif price is not None and quantity is None:
            self.sync.update_order(trade, price=price)  # checks only: the same price sends nothing
        if quantity is not None:
            await self._run(self.sync.update_order, trade, quantity=quantity)
        return trade

    async def update_status(self, account: Optional[Account] = None) -> List[Trade]:
        """As ``quorvex.Client.update_status``, awaited."""
        await self._run(self.sync.update_status, account)
        return self.sync.trades

    # ------------------------------------------------------------------ queries

    async def account_balance(self, account: Optional[StockAccount] = None) -> AccountBalance:
        """As ``quorvex.Client.account_balance``, awaited."""
        return await self._run(self.sync.account_balance, account)

    async def margin(self, account: Optional[FutureAccount] = None) -> Margin:
        """As ``quorvex.Client.margin``, awaited."""
        return await self._run(self.sync.margin, account)

    async def positions(self, account: Optional[Account] = None, unit: str = "Common") -> "RecordList[Any]":
        """As ``quorvex.Client.positions``, awaited."""
        return await self._run(self.sync.positions, account, unit)

    async def profit_loss(
        self,
        account: Optional[Account] = None,
        begin: Optional[DateLike] = None,
        end: Optional[DateLike] = None,
    ) -> "RecordList[Any]":
        """As ``quorvex.Client.profit_loss``, awaited."""
        return await self._run(self.sync.profit_loss, account, begin, end)

    async def ticks(self, contract: Code, date: Optional[DateLike] = None, **query: Any) -> Ticks:
        """As ``quorvex.Client.ticks``, awaited."""
        return await self._run(self.sync.ticks, contract, date, **query)

    async def kbars(
        self, contract: Code, start: Optional[DateLike] = None, end: Optional[DateLike] = None
    ) -> Kbars:
        """As ``quorvex.Client.kbars``, awaited."""
        return await self._run(self.sync.kbars, contract, start, end)

    async def daily_quotes(
        self, date: Optional[DateLike] = None, *, exclude_etfs: bool = False
    ) -> DailyQuotes:
        """As ``quorvex.Client.daily_quotes``, awaited."""
        return await self._run(self.sync.daily_quotes, date, exclude_etfs=exclude_etfs)

    async def snapshots(self, contracts: Sequence[Code]) -> "RecordList[Snapshot]":
        """As ``quorvex.Client.snapshots``, awaited."""
        return await self._run(self.sync.snapshots, contracts)

    # ------------------------------------------------------------------ streams

    def _stream(self, kind: str, accept: Callable[..., bool], make: Callable[..., T]) -> "_Stream[T]":
        return _Stream(self.sync, kind, accept, make)

    async def quotes(
        self, contract: Code, quote_type: Union[QuoteType, str] = QuoteType.Tick, *, odd_lot: bool = False
    ) -> AsyncIterator[Any]:
        """Subscribe and yield each quote record of ``contract`` (``TickSTKv1``, ``BidAskFOPv1``,
        ...) until the iteration stops, then unsubscribe."""
        kind = QuoteType(quote_type) if isinstance(quote_type, str) else quote_type
        record = self.sync.subscribe(contract, kind, odd_lot=odd_lot)
        code = record.target_code or record.code
        stream = self._stream(
            kind.value, lambda exchange, quote: quote.code == code, lambda exchange, quote: quote
        )
        try:
            async for quote in stream:
                yield quote
        finally:
            stream.close()
            self.sync.unsubscribe(record, kind, odd_lot=odd_lot)

    def order_events(self) -> AsyncIterator[OrderEvent]:
        """Yield every order report as an ``OrderEvent`` from now on."""
        return self._stream("order", lambda event: True, lambda event: event)

    def deal_events(self) -> AsyncIterator[DealEvent]:
        """Yield every fill as a ``DealEvent`` from now on."""
        return self._stream("deal", lambda event: True, lambda event: event)


class _Stream(AsyncIterator[T]):
    """Items from the messaging thread, queued on the loop; listening starts when it is made."""

    def __init__(
        self, sync: _SyncClient, kind: str, accept: Callable[..., bool], make: Callable[..., T]
    ) -> None:
        self._loop = asyncio.get_running_loop()
        self._queue: asyncio.Queue[T] = asyncio.Queue()
        self._sync, self._accept, self._make = sync, accept, make
        sync._handlers[kind].append(self._handler)

    def _put(self, item: T) -> None:
        if self._queue.qsize() >= _QUEUE_LIMIT:
            self._queue.get_nowait()
        self._queue.put_nowait(item)

    def _handler(self, *args: Any) -> None:
        if self._accept(*args):
            with contextlib.suppress(RuntimeError):  # a closed loop
                self._loop.call_soon_threadsafe(self._put, self._make(*args))

    async def __anext__(self) -> T:
        return await self._queue.get()

    def close(self) -> None:
        """Stop listening."""
        self._sync.remove_handler(self._handler)

    async def aclose(self) -> None:
        self.close()
