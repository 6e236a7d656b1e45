"""Keeping the trades a user holds true: replies and reports merged into one Trade per order.

The backend's trade book (``SolaceAPI._trades``) keys each trade by its order id once the
placement reply names it. This module merges into those same ``Trade`` objects what the
backend leaves out: the order and status blocks of cancel and change replies, every order
report and every deal report. Replies and reports travel on different threads, so a
snapshot older than what the trade already shows is never applied over it, and a report
that arrives before its placement reply is kept until the reply names the order.
"""

import collections
import threading
from typing import Any, Callable, Dict, List, Optional, OrderedDict, Tuple

from quorvex.backend.solace.utils import convert_ts
from quorvex.constant import OrderState, Status
from quorvex.order import Order, OrderStatus, Trade

__all__ = ["TradeBook", "reply_refusal"]

_KEPT = ("msg", "status_code")
_DEAL_STATES = (OrderState.Deal, OrderState.FDeal, OrderState.TFTDeal)
# Reports of orders not (yet) in the book, kept for this many orders.
_EARLY_ORDERS = 256


def _block(source: Any, *path: str) -> Dict[str, Any]:
    for key in path:
        source = source.get(key) if isinstance(source, dict) else None
    return source if isinstance(source, dict) else {}


def reply_refusal(resp: Any) -> Tuple[Any, str, str]:
    """(status code, detail, the broker's reason code) of a reply."""
    status_code = _block(resp, "status").get("status_code", 0)
    response = _block(resp, "response")
    detail = response.get("detail") or _block(resp, "status").get("detail") or ""
    sts_code = response.get("sts_code") or ""
    return status_code, str(detail), "" if sts_code in (0, None) else str(sts_code)


def _older(status: OrderStatus, block: Dict[str, Any]) -> bool:
    # Quantities and deals only grow over an order's life: a snapshot with less is stale.
    deals = block.get("deals")
    return (
        int(block.get("deal_quantity", status.deal_quantity) or 0) < status.deal_quantity
        or int(block.get("cancel_quantity", status.cancel_quantity) or 0) < status.cancel_quantity
        or (isinstance(deals, list) and len(deals) < len(status.deals))
    )


class TradeBook:
    """The front object's upkeep of the backend's trade book ``trades`` (order id -> Trade)."""

    def __init__(self, trades: Callable[[], Dict[str, Trade]]) -> None:
        self._trades = trades
        self._lock = threading.RLock()
        self._early: OrderedDict[str, List[Tuple[OrderState, Dict[str, Any]]]] = collections.OrderedDict()
        # Correlation ids of refused placements the broker has not yet named.
        self._refused: List[str] = []
        # The reply status of recent refused placements, by trade.
        self._refusals: OrderedDict[int, Tuple[Trade, Any]] = collections.OrderedDict()

    # ------------------------------------------------------------------ merging

    def merge(self, trade: Trade, order_block: Dict[str, Any], status_block: Dict[str, Any]) -> None:
        """Overlay an order block and a status block on ``trade``, unless the status is stale."""
        with self._lock:
            if order_block:
                fields = trade.order.dict()
                fields.update((k, v) for k, v in order_block.items() if k in Order.model_fields)
                trade.order = Order(**fields)
            if status_block and not _older(trade.status, status_block):
                fields = trade.status.dict()
                # An empty reason or code in a later snapshot does not erase a known one.
                fields.update((k, v) for k, v in status_block.items() if v != "" or k not in _KEPT)
                order_ts = status_block.get("order_ts")
                if isinstance(order_ts, (int, float)) and not isinstance(order_ts, bool):
                    fields["order_datetime"] = convert_ts(order_ts)
                trade.status = OrderStatus(**fields)

    def merge_reply(self, trade: Optional[Trade], resp: Any) -> Optional[Trade]:
        """Merge a cancel or change reply into its trade (found by the reply's order id)."""
        order_block = _block(resp, "response", "order")
        trade = self._trades().get(str(order_block.get("id", ""))) or trade
        if trade is not None:
            self.merge(trade, order_block, _block(resp, "response", "status"))
        return trade

    def apply_deal(self, trade: Trade, report: Dict[str, Any]) -> None:
        with self._lock:
            seq = str(report.get("exchange_seq", ""))
            status = trade.status
            if seq and any(deal.seq == seq for deal in status.deals):
                return
            fields = status.dict()
            fields["deals"].append(
                {
                    "seq": seq,
                    "price": report.get("price", 0.0),
                    "quantity": report.get("quantity", 0),
                    "ts": report.get("ts", 0.0),
                    "code": "" if report.get("code") == trade.contract.code else report.get("code", ""),
                }
            )
            dealt = max(status.deal_quantity, sum(int(d["quantity"] or 0) for d in fields["deals"]))
            fields["deal_quantity"] = dealt
            if status.status not in (Status.Cancelled, Status.Failed):
                ordered = status.order_quantity or trade.order.quantity
                fields["status"] = (
                    Status.Filled if dealt >= ordered - status.cancel_quantity else Status.PartFilled
                )
            trade.status = OrderStatus(**fields)

    # ------------------------------------------------------------------ reports

    def apply_report(self, state: OrderState, report: Dict[str, Any]) -> Optional[Trade]:
        """Apply an order or deal report to its trade; returns the trade, None when unknown."""
        deal = state in _DEAL_STATES
        order_id = str((report if deal else _block(report, "order")).get("id", ""))
        with self._lock:
            trade = self._trades().get(order_id) if order_id else None
            if trade is None and not deal:
                trade = self._adopt_refused(order_id, report)
            if trade is None:
                if order_id:
                    self._early.setdefault(order_id, []).append((state, report))
                    self._early.move_to_end(order_id)
                    while len(self._early) > _EARLY_ORDERS:
                        self._early.popitem(last=False)
                return None
            self._apply(trade, state, report)
            return trade

    def _apply(self, trade: Trade, state: OrderState, report: Dict[str, Any]) -> None:
        if state in _DEAL_STATES:
            self.apply_deal(trade, report)
        else:
            self.merge(trade, _block(report, "order"), _block(report, "status"))

    # ------------------------------------------------------------------ placements

    def placed(self, corrid: str, key: str, resp: Any) -> Tuple[Optional[Trade], str]:
        """After the backend handled a placement reply: record a refusal's reason and code on
        the trade, and apply the reports that came before the reply. Returns the trade and
        the key it now stands under."""
        with self._lock:
            trade = self._trades().get(key)
            if trade is None:
                return None, key
            status_code, detail, sts_code = reply_refusal(resp)
            if trade.status.status is Status.Failed and status_code not in (0, 200):
                fields = trade.status.dict()
                fields.update(msg=detail, status_code=sts_code)
                trade.status = OrderStatus(**fields)
                self._refused.append(corrid)
                self._refusals[id(trade)] = (trade, status_code)
                while len(self._refusals) > _EARLY_ORDERS:
                    self._refusals.popitem(last=False)
                for order_id, reports in list(self._early.items()):
                    if any(self._adopt_refused(order_id, report) is trade for _, report in reports):
                        return trade, order_id
            for state, report in self._early.pop(key, []):
                self._apply(trade, state, report)
            return trade, key

    def refusal_status(self, trade: Trade) -> Any:
        """The reply status with which ``trade``'s placement was refused (400 when unknown)."""
        held = self._refusals.get(id(trade))
        return held[1] if held is not None and held[0] is trade else 400

    def _adopt_refused(self, order_id: str, report: Dict[str, Any]) -> Optional[Trade]:
        # A refused placement's reply names no order, but the broker numbered it: its report
        # ("New", refused) is matched to the refused trade by contract and terms.
        operation = _block(report, "operation")
        if not order_id or operation.get("op_type") != "New" or operation.get("op_code") in ("00", None):
            return None
        order_block = _block(report, "order")
        code = _block(report, "contract").get("code")
        trades = self._trades()
        for corrid in self._refused:
            trade = trades.get(corrid)
            if trade is None or trade.order.id:
                continue
            order = trade.order
            if (trade.contract.code, str(order.action), float(order.price), order.quantity) == (
                code,
                str(order_block.get("action")),
                float(order_block.get("price", 0.0) or 0.0),
                order_block.get("quantity"),
            ):
                self._refused.remove(corrid)
                trades[order_id] = trades.pop(corrid)
                self.merge(trade, order_block, _block(report, "status"))
                self._early.pop(order_id, None)
                return trade
        return None

    def refresh(self, resp: Any) -> None:
        """Before a status refresh is merged: refused trades the refresh names are re-keyed, so
        the refresh updates them instead of adding a second trade for the order."""
        entries = resp.get("response") if isinstance(resp, dict) else None
        if not isinstance(entries, list) or not self._refused:
            return
        with self._lock:
            for entry in entries:
                if not isinstance(entry, dict):
                    continue
                order_id = str(_block(entry, "order").get("id", ""))
                failed = _block(entry, "status").get("status") == Status.Failed.value
                if failed and order_id and order_id not in self._trades():
                    report = dict(entry, operation={"op_type": "New", "op_code": "refused"})
                    self._adopt_refused(order_id, report)

    def unique(self, trades: List[Trade]) -> List[Trade]:
        """The trades without repeats (a trade may stand under a correlation id too)."""
        seen = set()
        return [t for t in trades if id(t) not in seen and not seen.add(id(t))]  # type: ignore[func-returns-value]
