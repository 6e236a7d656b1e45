"""Typed events of the front object: order reports, deal reports and session events.

Each is a frozen record made from what the broker pushed, with the ``Trade`` it updated
when the order is one this client holds.
"""

import datetime
from dataclasses import dataclass, field
from enum import Enum
from typing import Any, Dict, Optional, Type, TypeVar

from quorvex.constant import Action, OrderState, Status
from quorvex.frames import TAIPEI
from quorvex.order import Trade

__all__ = ["TAIPEI", "DealEvent", "OrderEvent", "SessionEvent", "taipei_time"]

# The operation code of an order report that went through.
_DONE = "00"


def taipei_time(epoch_seconds: Any) -> Optional[datetime.datetime]:
    """POSIX seconds as an aware Taipei time; None when not a number."""
    if isinstance(epoch_seconds, bool) or not isinstance(epoch_seconds, (int, float)):
        return None
    return datetime.datetime.fromtimestamp(epoch_seconds, TAIPEI)


def _text(block: Dict[str, Any], key: str) -> str:
    value = block.get(key, "")
    return "" if value is None else str(value)


_E = TypeVar("_E", bound=Enum)


def _member(enumeration: Type[_E], value: Any) -> Optional[_E]:
    """The member of `value`, None for a value the enumeration does not know."""
    try:
        return enumeration(value)
    except ValueError:
        return None


@dataclass(frozen=True)
class OrderEvent:
    """An order report: a placement accepted or refused, a cancel, a price or quantity change.

    ``operation`` is "New", "Cancel", "UpdatePrice" or "UpdateQty"; ``code`` is "00" when it
    went through, else the broker's reason code, with its text in ``message``.
    """

    state: OrderState
    operation: str
    code: str
    message: str
    order_id: str
    status: Optional[Status]
    trade: Optional[Trade] = field(repr=False)
    report: Dict[str, Any] = field(repr=False)

    @property
    def ok(self) -> bool:
        """Whether the operation went through."""
        return self.code == _DONE

    @classmethod
    def from_report(cls, state: OrderState, report: Dict[str, Any], trade: Optional[Trade]) -> "OrderEvent":
        """The event of an order report as the session delivered it."""
        operation = report.get("operation") or {}
        status = _member(Status, (report.get("status") or {}).get("status"))
        return cls(
            state=state,
            operation=_text(operation, "op_type"),
            code=_text(operation, "op_code") or _DONE,
            message=_text(operation, "op_msg"),
            order_id=_text(report.get("order") or {}, "id"),
            status=status,
            trade=trade,
            report=report,
        )


@dataclass(frozen=True)
class DealEvent:
    """A fill: ``quantity`` units of ``code`` at ``price`` (board lots, shares for odd lots,
    contracts for futures and options), ``time`` an aware Taipei time."""

    state: OrderState
    order_id: str
    seq: str
    code: str
    action: Optional[Action]
    price: float
    quantity: int
    time: Optional[datetime.datetime]
    trade: Optional[Trade] = field(repr=False)
    report: Dict[str, Any] = field(repr=False)

    @classmethod
    def from_report(cls, state: OrderState, report: Dict[str, Any], trade: Optional[Trade]) -> "DealEvent":
        """The event of a deal report as the session delivered it."""
        action = _member(Action, report.get("action"))
        return cls(
            state=state,
            order_id=_text(report, "id"),
            seq=_text(report, "exchange_seq"),
            code=_text(report, "code"),
            action=action,
            price=float(report.get("price") or 0.0),
            quantity=int(report.get("quantity") or 0),
            time=taipei_time(report.get("ts")),
            trade=trade,
            report=report,
        )


@dataclass(frozen=True)
class SessionEvent:
    """A change of the link to the broker: "connected", "reconnecting", "reconnected",
    "down" or "subscription error", with the transport's explanation in ``info``."""

    name: str
    code: int
    info: str
    response_code: int

    @property
    def down(self) -> bool:
        """Whether the session is lost until the next login."""
        return self.name == "down"
