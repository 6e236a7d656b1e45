"""Stock reservation (for short selling) and earmarking: requests, results and listings.

A result record carries either the service's answer in ``response`` or, when the service
refused, an ``ErrorResponse`` in ``error``.
"""

import datetime
from typing import List, Optional, Union

from pydantic import Field

from quorvex.account import AnyAccount
from quorvex.common import BaseModel, PositionalModel
from quorvex.contracts import AnyContract
from quorvex.data import CASign

__all__ = [
    "EarmarkStockDetail",
    "EarmarkStocksDetail",
    "EarmarkStocksDetailResponse",
    "EarmarkingOrder",
    "EarmarkingOrderResp",
    "ErrorResponse",
    "ReserveEarmarkingResponse",
    "ReserveOrder",
    "ReserveOrderResp",
    "ReserveStockDetail",
    "ReserveStockResponse",
    "ReserveStockSummary",
    "ReserveStocksDetail",
    "ReserveStocksDetailResponse",
    "ReserveStocksSummary",
    "ReserveStocksSummaryResponse",
]


class ErrorResponse(PositionalModel):
    """A refusal: the service's status code and its detail text."""

    status_code: Union[int, str] = ""
    detail: str = ""


class ReserveOrder(PositionalModel):
    """A request to reserve ``share`` shares, signed by the account holder."""

    share: int = Field(gt=0)
    # The signed text travels with its signature, so the service can verify it as is.
    ca: Optional[CASign] = Field(default=None, repr=False)


class EarmarkingOrder(PositionalModel):
    """A request to earmark funds for ``share`` shares at ``price``, signed."""

    share: int = Field(gt=0)
    price: float = Field(ge=0)
    ca: Optional[CASign] = Field(default=None, repr=False)


class ReserveOrderResp(BaseModel):
    contract: AnyContract
    account: AnyAccount
    share: int = 0
    status: bool = False
    info: str = ""


class EarmarkingOrderResp(BaseModel):
    contract: AnyContract
    account: AnyAccount
    share: int = 0
    price: float = 0.0
    status: bool = False
    info: str = ""


class ReserveStockResponse(BaseModel):
    response: ReserveOrderResp
    error: Optional[ErrorResponse] = None


class ReserveEarmarkingResponse(BaseModel):
    response: EarmarkingOrderResp
    error: Optional[ErrorResponse] = None


class ReserveStockSummary(BaseModel):
    contract: AnyContract
    available_share: int = 0
    reserved_share: int = 0


class ReserveStocksSummary(BaseModel):
    stocks: List[ReserveStockSummary] = []
    account: AnyAccount


class ReserveStocksSummaryResponse(BaseModel):
    response: ReserveStocksSummary
    error: Optional[ErrorResponse] = None


class ReserveStockDetail(BaseModel):
    contract: AnyContract
    share: int = 0
    order_datetime: Optional[datetime.datetime] = None
    status: bool = False
    info: str = ""


class ReserveStocksDetail(BaseModel):
    stocks: List[ReserveStockDetail] = []
    account: AnyAccount


class ReserveStocksDetailResponse(BaseModel):
    response: ReserveStocksDetail
    error: Optional[ErrorResponse] = None


class EarmarkStockDetail(BaseModel):
    contract: AnyContract
    share: int = 0
    price: float = 0.0
    amount: float = 0.0
    order_datetime: Optional[datetime.datetime] = None
    status: bool = False
    info: str = ""


class EarmarkStocksDetail(BaseModel):
    stocks: List[EarmarkStockDetail] = []
    account: AnyAccount


class EarmarkStocksDetailResponse(BaseModel):
    response: EarmarkStocksDetail
    error: Optional[ErrorResponse] = None
