"""Live views fed from the messaging thread: the quote board and the order-report log.

Callbacks run on the session's messaging thread while the main thread renders, so each view
keeps its state under its own lock and renders from a consistent copy. A callback never
raises: a record it cannot read is counted, and the first such error is kept for the summary.
"""

import datetime
import threading
from typing import Any, Callable, Dict, List, Optional, Sequence

from rich import box
from rich.table import Table
from rich.text import Text

__all__ = ["OrderReport", "QuoteBoard", "ReportLog", "price_text", "quantity_text"]


def price_text(value: Any) -> str:
    """A price as a trader reads it: no decimals for whole numbers (index points, large
    stocks), two otherwise."""
    if value is None or value == "":
        return "-"
    try:
        number = float(value)
    except (TypeError, ValueError):
        return str(value)
    return f"{number:,.0f}" if number == int(number) else f"{number:,.2f}"


def quantity_text(value: Any) -> str:
    try:
        return f"{int(value):,}"
    except (TypeError, ValueError):
        return "-" if value in (None, "") else str(value)


def _first(values: Any) -> Any:
    try:
        return values[0] if values else None
    except (TypeError, IndexError, KeyError):
        return None


def _clock(moment: Any) -> str:
    if isinstance(moment, datetime.datetime):
        return moment.strftime("%H:%M:%S.%f")[:-3]
    return "-" if moment is None else str(moment)


class _Row:
    __slots__ = (
        "ask",
        "ask_volume",
        "bid",
        "bid_volume",
        "bidasks",
        "change",
        "code",
        "last",
        "name",
        "pct",
        "ticks",
        "time",
        "total_volume",
        "volume",
    )

    def __init__(self, code: str, name: str) -> None:
        self.code, self.name = code, name
        self.time = self.last = self.change = self.pct = self.volume = self.total_volume = None
        self.bid = self.bid_volume = self.ask = self.ask_volume = None
        self.ticks = self.bidasks = 0


class QuoteBoard:
    """The latest tick and best bid/ask of each subscribed contract."""

    def __init__(self, contracts: Sequence[Any]) -> None:
        self._lock = threading.Lock()
        self._rows: Dict[str, _Row] = {}
        for contract in contracts:
            self._rows[contract.code] = _Row(contract.code, getattr(contract, "name", "") or "")
        self.errors = 0
        self.first_error: Optional[str] = None

    # -- messaging thread ---------------------------------------------------------

    def on_tick(self, exchange: Any, tick: Any) -> None:
        try:
            with self._lock:
                row = self._row(tick.code)
                row.time = tick.datetime
                row.last = tick.close
                row.change = tick.price_chg
                row.pct = tick.pct_chg
                row.volume = tick.volume
                row.total_volume = tick.total_volume
                row.ticks += 1
        except Exception as error:
            self._failed(error)

    def on_bidask(self, exchange: Any, bidask: Any) -> None:
        try:
            with self._lock:
                row = self._row(bidask.code)
                row.time = bidask.datetime
                row.bid = _first(bidask.bid_price)
                row.bid_volume = _first(bidask.bid_volume)
                row.ask = _first(bidask.ask_price)
                row.ask_volume = _first(bidask.ask_volume)
                row.bidasks += 1
        except Exception as error:
            self._failed(error)

    def _row(self, code: str) -> _Row:
        row = self._rows.get(code)
        if row is None:
            row = self._rows[code] = _Row(code, "")
        return row

    def _failed(self, error: Exception) -> None:
        with self._lock:
            self.errors += 1
            if self.first_error is None:
                self.first_error = f"{type(error).__name__}: {error}"

    # -- any thread ----------------------------------------------------------------

    def attach(self, api: Any) -> None:
        """Route the typed stock and futures/options records of `api` to this board."""
        api.set_on_tick_stk_v1_callback(self.on_tick)
        api.set_on_tick_fop_v1_callback(self.on_tick)
        api.set_on_bidask_stk_v1_callback(self.on_bidask)
        api.set_on_bidask_fop_v1_callback(self.on_bidask)

    def counts(self) -> Dict[str, int]:
        with self._lock:
            return {
                "ticks": sum(r.ticks for r in self._rows.values()),
                "bidasks": sum(r.bidasks for r in self._rows.values()),
            }

    def best_bid_ask(self, code: str) -> "tuple":
        """(bid, ask) last seen for `code`; None for a side not seen."""
        with self._lock:
            row = self._rows.get(code)
            return (row.bid, row.ask) if row else (None, None)

    def last_price(self, code: str) -> Optional[float]:
        with self._lock:
            row = self._rows.get(code)
            return row.last if row else None

    def table(self, title: str = "Quotes") -> Table:
        with self._lock:
            rows = [
                (
                    r.code,
                    r.name,
                    _clock(r.time),
                    r.last,
                    r.change,
                    r.pct,
                    r.volume,
                    r.total_volume,
                    r.bid,
                    r.bid_volume,
                    r.ask,
                    r.ask_volume,
                    r.ticks,
                    r.bidasks,
                )
                for r in self._rows.values()
            ]
        table = Table(title=title, title_justify="left", box=box.SIMPLE_HEAD, pad_edge=False)
        table.add_column("Code", no_wrap=True)
        table.add_column("Name", no_wrap=True, max_width=14, overflow="ellipsis")
        for header in ("Time", "Last", "Chg", "%", "Volume", "Bid", "Bid vol", "Ask", "Ask vol", "Updates"):
            table.add_column(header, justify="left" if header == "Time" else "right", no_wrap=True)
        for (
            code,
            name,
            clock,
            last,
            change,
            pct,
            _volume,
            total,
            bid,
            bid_volume,
            ask,
            ask_volume,
            ticks,
            bidasks,
        ) in rows:
            style = "" if change is None else "green" if change > 0 else "red" if change < 0 else ""
            table.add_row(
                code,
                name,
                clock,
                Text(price_text(last), style=style),
                Text(price_text(change), style=style),
                Text("-" if pct is None else f"{pct:+.2f}", style=style),
                quantity_text(total),
                price_text(bid),
                quantity_text(bid_volume),
                price_text(ask),
                quantity_text(ask_volume),
                str(ticks + bidasks),
            )
        return table


class OrderReport:
    """One order or deal report as the session received it, with what a reader wants first."""

    __slots__ = ("message", "received", "state")

    def __init__(self, state: Any, message: Any) -> None:
        self.received = datetime.datetime.now()
        self.state = str(state)
        self.message = message

    @property
    def is_deal(self) -> bool:
        return self.state.endswith("Deal")

    def _part(self, name: str) -> Dict[str, Any]:
        part = self.message.get(name) if isinstance(self.message, dict) else None
        return part if isinstance(part, dict) else {}

    def field(self, name: str) -> Any:
        """A field from the report's top level or its order, contract, status or operation block."""
        if isinstance(self.message, dict) and name in self.message:
            return self.message[name]
        for block in ("order", "contract", "status", "operation"):
            part = self._part(block)
            if name in part:
                return part[name]
        return None

    def summary(self) -> str:
        kind = "deal" if self.is_deal else "order"
        operation = self.field("op_type")
        message = self.field("op_msg")
        words = [
            f"{self.state:<6}",
            str(self.field("action") or ""),
            quantity_text(self.field("quantity")),
            str(self.field("code") or ""),
            "@ " + price_text(self.field("price")),
        ]
        if operation and not self.is_deal:
            words.append(f"[{operation}]")
        number = self.field("ordno") or self.field("seqno")
        if number:
            words.append(f"{kind} {number}" if kind == "order" else f"order {number}")
        if message:
            words.append(f"- {message}")
        return " ".join(w for w in words if w)


class ReportLog:
    """Order and deal reports in arrival order; `printer` shows each as it arrives."""

    def __init__(self, printer: Optional[Callable[[OrderReport], None]] = None) -> None:
        self._lock = threading.Lock()
        self._arrived = threading.Condition(self._lock)
        self._reports: List[OrderReport] = []
        self._printer = printer
        self.errors = 0

    def on_order(self, state: Any, message: Any) -> None:
        """The order callback (set_order_callback): never raises into the messaging thread."""
        report = OrderReport(state, message)
        printed = True
        # Shown before it is counted, so a waiter woken by it finds it already on screen.
        if self._printer is not None:
            try:
                self._printer(report)
            except Exception:
                printed = False
        with self._arrived:
            self._reports.append(report)
            self.errors += 0 if printed else 1
            self._arrived.notify_all()

    def reports(self) -> List[OrderReport]:
        with self._lock:
            return list(self._reports)

    def wait_for(self, condition: Callable[[List[OrderReport]], bool], timeout: float) -> bool:
        """Wait until `condition(reports)` holds, at most `timeout` seconds; returns whether it held."""
        with self._arrived:
            return self._arrived.wait_for(lambda: condition(self._reports), timeout)
