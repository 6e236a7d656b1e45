"""The front object's session: a subclass of SolaceAPI whose reply handlers also keep the
user's trades true and report failures to whoever waits.

SolaceAPI looks up each reply handler on the instance when a reply arrives, so overriding
a handler here changes nothing for SolaceAPI itself. Each override runs the backend's own
handler, then adds what the front object needs:

- a blocking reply that never came (the session hands the handler None) is a
  ``RequestTimeout`` instead of the backend's ``AttributeError``;
- a failure of a non-blocking reply goes to the ``ReplyWaiter`` that waits for it (the
  asyncio front) instead of being raised on the messaging thread, where nobody sees it;
- placement, cancel and change replies are merged into the trade (``TradeBook``).
"""

import functools
from typing import Any, Callable, Optional, Type

from quorvex.client.book import TradeBook, reply_refusal
from quorvex.constant import FetchStatus
from quorvex.error import OrderRefused, RequestTimeout, ServiceError

__all__ = ["ReplyWaiter", "backend_class"]

# Reply handlers whose failures go to their waiter; the order handlers have their own overrides.
_QUERY_HANDLERS = (
    "_account_balance_cb",
    "_margin_cb",
    "_settlements_cb",
    "_list_settlements_cb",
    "_list_positions_cb",
    "_list_profit_loss_cb",
    "_list_profit_loss_summary_cb",
    "_ticks_cb",
    "_kbars_cb",
    "_daily_quotes_cb",
    "_snapshots_cb",
    "_scanners_cb",
    "_credit_enquires_cb",
    "_short_stock_source_cb",
)


class ReplyWaiter:
    """A callback given as ``cb`` to a non-blocking query: ``__call__`` receives the result,
    ``fail`` the error that the reply turned into."""

    def __call__(self, result: Any) -> None:
        raise NotImplementedError

    def fail(self, error: BaseException) -> None:
        raise NotImplementedError


def _timeout(topic: str) -> RequestTimeout:
    return RequestTimeout("no reply on {} before the time-out; the broker may still act on it".format(topic))


def _guarded(base: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(base)
    def handler(self: Any, topic: str, corrid: str, resp: Any) -> Any:
        if resp is None:
            raise _timeout(topic)
        waiter = self._rep_callback_map.get(corrid)
        try:
            return base(self, topic, corrid, resp)
        except Exception as error:
            if isinstance(waiter, ReplyWaiter):
                waiter.fail(error)
                return None
            raise

    return handler


def _order_refused(error: ServiceError, resp: Any, trade: Any) -> ServiceError:
    if type(error) is not ServiceError:  # a refused token stays a TokenError
        return error
    _status, detail, sts_code = reply_refusal(resp)
    return OrderRefused(error.status_code, detail or error.detail, sts_code, trade)


@functools.lru_cache(maxsize=None)
def backend_class() -> Type[Any]:
    """The SolaceAPI subclass the front object drives (made once, on first use)."""
    from quorvex.backend.solace.api import SolaceAPI

    class FrontAPI(SolaceAPI):  # type: ignore[misc,valid-type]
        book: TradeBook
        contract_error: Optional[BaseException] = None

        def _place_order_cb(self, topic: str, corrid: str, resp: Any) -> str:
            if resp is None:
                raise _timeout(topic)
            # The waiter is called here, after the merge, not by the backend before it.
            waiter = self._rep_callback_map.pop(corrid, None)
            try:
                key = SolaceAPI._place_order_cb(self, topic, corrid, resp)
            except Exception as error:
                if isinstance(waiter, ReplyWaiter):
                    waiter.fail(error)
                    return corrid
                raise
            trade, key = self.book.placed(corrid, key, resp)
            if waiter:
                waiter(trade)
            return key

        def _cancel_order_cb(self, topic: str, corrid: str, resp: Any) -> None:
            if resp is None:
                raise _timeout(topic)
            trade = self._trades.get(corrid)
            before = trade.status.status if trade is not None else None
            waiter = self._rep_callback_map.pop(corrid, None)
            status_code, detail, sts_code = reply_refusal(resp)
            error: Optional[Exception] = None
            try:
                SolaceAPI._cancel_order_cb(self, topic, corrid, resp)
            except ServiceError as refused:
                error = _order_refused(refused, resp, trade)
            if status_code == 200:
                self.book.merge_reply(trade, resp)
            elif error is None and trade is not None and before is not None:
                # Nothing left to cancel: the order is finished, not failed; keep its status.
                trade.status = trade.status.model_copy(update={"status": before, "msg": detail})
                error = OrderRefused(status_code, detail, sts_code, trade)
            if error is not None:
                if isinstance(waiter, ReplyWaiter):
                    waiter.fail(error)
                    return
                raise error
            if waiter:
                waiter(trade)

        def _update_order_cb(self, topic: str, corrid: str, resp: Any) -> None:
            if resp is None:
                raise _timeout(topic)
            trade = self._trades.get(corrid)
            waiter = self._rep_callback_map.pop(corrid, None)
            if waiter:  # the backend drops its entry only when it calls a callback
                self._trades.pop(corrid, None)
            try:
                SolaceAPI._update_order_cb(self, topic, corrid, resp)
            except ServiceError as refused:
                error = _order_refused(refused, resp, trade)
                if isinstance(waiter, ReplyWaiter):
                    waiter.fail(error)
                    return
                raise error from None
            trade = self.book.merge_reply(trade, resp)
            if waiter:
                waiter(trade)

        def _update_status_cb(self, topic: str, corrid: str, resp: Any) -> None:
            if resp is None:
                raise _timeout(topic)
            self.book.refresh(resp)
            _guarded(SolaceAPI._update_status_cb)(self, topic, corrid, resp)

        def _fetch_contracts_cb(self, topic: str, corrid: str, resp: Any) -> None:
            if resp is None:
                raise _timeout(topic)
            try:
                SolaceAPI._fetch_contracts_cb(self, topic, corrid, resp)
            except Exception as error:
                # A lost page would leave the download "Fetching" for good, and every later
                # download a no-op: record the failure for the waiting login and reopen it.
                self.contract_error = error
                self.Contracts.status = FetchStatus.Unfetch

    for name in _QUERY_HANDLERS:
        setattr(FrontAPI, name, _guarded(getattr(SolaceAPI, name)))
    FrontAPI.__qualname__ = FrontAPI.__name__ = "FrontAPI"
    FrontAPI.__module__ = __name__
    return FrontAPI
