"""Orders, their status at the broker, deals, and the trades that join them to a contract."""

import datetime
from typing import List, Optional

from pydantic import ConfigDict, Field

from quorvex.account import AnyAccount
from quorvex.common import BaseModel
from quorvex.constant import (
    Action,
    FuturesOCType,
    OrderState,
    OrderType,
    PriceType,
    Status,
    StockOrderCond,
    StockOrderLot,
)
from quorvex.contracts import AnyContract, ComboContract

__all__ = [
    "ComboStatus",
    "ComboTrade",
    "Deal",
    "Order",
    "OrderState",
    "OrderStatus",
    "Status",
    "Trade",
]


class Order(BaseModel):
    """An order for one contract.

    Unknown fields are refused: a misspelt field must not silently fall back to a default.
    """

    model_config = ConfigDict(extra="forbid")

    action: Action
    # Not bounded below: spread prices may be negative; the broker refuses what is out of range.
    price: float
    quantity: int = Field(gt=0)
    id: str = ""
    seqno: str = ""
    ordno: str = ""
    account: Optional[AnyAccount] = None
    ca: str = Field(default="", repr=False)
    price_type: PriceType = PriceType.LMT
    order_type: OrderType = OrderType.ROD
    order_lot: StockOrderLot = StockOrderLot.Common
    order_cond: StockOrderCond = StockOrderCond.Cash
    octype: FuturesOCType = FuturesOCType.Auto
    daytrade_short: bool = False
    custom_field: str = ""


class Deal(BaseModel):
    """One fill: the broker's sequence, price, quantity and epoch time (and the leg's code in
    a combination)."""

    seq: str = ""
    price: float = 0.0
    quantity: int = 0
    ts: float = 0.0
    code: str = ""


class OrderStatus(BaseModel):
    """The broker's view of an order; fields the reply adds beyond these are kept."""

    id: str = ""
    status: Status = Status.Inactive
    status_code: str = ""
    web_id: str = ""
    order_datetime: Optional[datetime.datetime] = None
    order_quantity: int = 0
    deal_quantity: int = 0
    cancel_quantity: int = 0
    modified_time: Optional[datetime.datetime] = None
    modified_price: float = 0.0
    msg: str = ""
    deals: List[Deal] = Field(default_factory=list)


class ComboStatus(OrderStatus):
    """Status of a combination order; ``deals`` carry each leg's code."""


class Trade(BaseModel):
    """A contract, an order on it and the order's status; ``dict()`` has exactly these keys."""

    model_config = ConfigDict(extra="forbid")

    contract: AnyContract
    order: Order
    status: OrderStatus


class ComboTrade(BaseModel):
    model_config = ConfigDict(extra="forbid")

    contract: ComboContract
    order: Order
    status: ComboStatus
