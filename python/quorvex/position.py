"""Open positions, realised profit and loss, their details and summaries.

Every record here also answers item access (``position["code"]``).
"""

from typing import Any, List, Union

from pydantic import field_validator

from quorvex.common import BaseModel
from quorvex.constant import Action, Currency, FetchStatus, StockOrderCond, TradeType

__all__ = [
    "FuturePosition",
    "FuturePositionDetail",
    "FutureProfitDetail",
    "FutureProfitLoss",
    "FutureProfitLossSummary",
    "ProfitLossSummaryTotal",
    "ProfitLossTotal",
    "StockPosition",
    "StockPositionDetail",
    "StockProfitDetail",
    "StockProfitLoss",
    "StockProfitLossSummary",
]


class StockPosition(BaseModel):
    id: int
    code: str
    direction: Action
    quantity: int = 0
    price: float = 0.0
    last_price: float = 0.0
    pnl: float = 0.0
    yd_quantity: int = 0
    cond: StockOrderCond = StockOrderCond.Cash
    margin_purchase_amount: int = 0
    collateral: int = 0
    short_sale_margin: int = 0
    interest: int = 0


class FuturePosition(BaseModel):
    id: int
    code: str
    direction: Action
    quantity: int = 0
    price: float = 0.0
    last_price: float = 0.0
    pnl: float = 0.0


class PositionDetail(BaseModel):
    """The fields every lot behind a position has, stock or futures."""

    date: str = ""
    code: str
    quantity: int = 0
    price: float = 0.0
    last_price: float = 0.0
    dseq: str = ""
    direction: Action
    pnl: float = 0.0
    currency: Currency = Currency.TWD
    fee: float = 0.0


class StockPositionDetail(PositionDetail):
    cond: StockOrderCond = StockOrderCond.Cash
    ex_dividends: int = 0
    interest: int = 0
    margintrading_amt: int = 0
    collateral: int = 0


class FuturePositionDetail(PositionDetail):
    entry_quantity: int = 0


class StockProfitLoss(BaseModel):
    id: int
    code: str
    seqno: str = ""
    dseq: str = ""
    quantity: int = 0
    price: float = 0.0
    pnl: float = 0.0
    pr_ratio: float = 0.0
    cond: StockOrderCond = StockOrderCond.Cash
    date: str = ""


class FutureProfitLoss(BaseModel):
    id: int
    code: str
    quantity: int = 0
    pnl: float = 0.0
    date: str = ""
    direction: Action
    entry_price: float = 0.0
    cover_price: float = 0.0
    tax: float = 0.0
    fee: float = 0.0


class StockProfitDetail(BaseModel):
    date: str = ""
    code: str
    quantity: int = 0
    dseq: str = ""
    fee: float = 0.0
    tax: float = 0.0
    currency: Currency = Currency.TWD
    price: float = 0.0
    cost: float = 0.0
    rep_margintrading_amt: float = 0.0
    rep_collateral: float = 0.0
    rep_margin: float = 0.0
    shortselling_fee: float = 0.0
    ex_dividend_amt: float = 0.0
    interest: float = 0.0
    trade_type: TradeType = TradeType.Common
    cond: StockOrderCond = StockOrderCond.Cash


class FutureProfitDetail(BaseModel):
    date: str = ""
    code: str
    quantity: int = 0
    dseq: str = ""
    fee: float = 0.0
    tax: float = 0.0
    currency: Currency = Currency.TWD
    direction: Action
    entry_price: float = 0.0
    cover_price: float = 0.0
    pnl: float = 0.0


class StockProfitLossSummary(BaseModel):
    code: str
    quantity: int = 0
    entry_cost: float = 0.0
    cover_cost: float = 0.0
    buy_cost: float = 0.0
    sell_cost: float = 0.0
    pnl: float = 0.0
    pr_ratio: float = 0.0
    cond: StockOrderCond = StockOrderCond.Cash
    currency: Currency = Currency.TWD


class FutureProfitLossSummary(BaseModel):
    code: str
    direction: Action
    quantity: int = 0
    entry_price: float = 0.0
    cover_price: float = 0.0
    pnl: float = 0.0
    tax: float = 0.0
    fee: float = 0.0
    currency: Currency = Currency.TWD


class ProfitLossTotal(BaseModel):
    quantity: int = 0
    buy_cost: float = 0.0
    sell_cost: float = 0.0
    pnl: float = 0.0
    pr_ratio: float = 0.0


class ProfitLossSummaryTotal(BaseModel):
    profitloss_summary: List[Union[StockProfitLossSummary, FutureProfitLossSummary]] = []
    total: ProfitLossTotal = ProfitLossTotal()
    status: FetchStatus = FetchStatus.Unfetch

    @field_validator("profitloss_summary", mode="before")
    @classmethod
    def _summary_rows(cls, rows: Any) -> Any:
        # Only futures rows carry a direction; that tells the two row kinds apart.
        if isinstance(rows, list):
            return [
                (FutureProfitLossSummary if "direction" in row else StockProfitLossSummary)(**row)
                if isinstance(row, dict)
                else row
                for row in rows
            ]
        return rows
