"""Money, settlements, market data, signatures and trace records."""

from typing import TYPE_CHECKING, Any, Dict, List, Optional

from pydantic import Field
from typing_extensions import Literal

from quorvex.account import AnyAccount
from quorvex.common import BaseModel, PositionalModel
from quorvex.constant import ChangeType, FetchStatus, TickType

if TYPE_CHECKING:  # pragma: no cover
    import pandas


def _columns_df(self: BaseModel) -> "pandas.DataFrame":
    """The columns as a pandas DataFrame: snake_case names, Taipei time stamps (pandas is
    optional and imported now)."""
    from quorvex.frames import columns_frame

    return columns_frame({name: getattr(self, name) for name in type(self).model_fields})


__all__ = [
    "AccountBalance",
    "CASign",
    "ChangePercentRank",
    "CreditEnquire",
    "DailyQuotes",
    "Kbars",
    "Margin",
    "Settlement",
    "SettlementV1",
    "ShortStockSource",
    "Snapshot",
    "Ticks",
    "TraceLog",
]


class AccountBalance(BaseModel):
    acc_balance: float = 0.0
    date: str = ""
    errmsg: str = ""
    status: FetchStatus = FetchStatus.Unfetch


class Margin(BaseModel):
    """The margin sheet of a futures and options account."""

    yesterday_balance: float = 0.0
    today_balance: float = 0.0
    deposit_withdrawal: float = 0.0
    fee: float = 0.0
    tax: float = 0.0
    initial_margin: float = 0.0
    maintenance_margin: float = 0.0
    margin_call: float = 0.0
    risk_indicator: float = 0.0
    royalty_revenue_expenditure: float = 0.0
    equity: float = 0.0
    equity_amount: float = 0.0
    option_openbuy_market_value: float = 0.0
    option_opensell_market_value: float = 0.0
    option_open_position: float = 0.0
    option_settle_profitloss: float = 0.0
    future_open_position: float = 0.0
    today_future_open_position: float = 0.0
    future_settle_profitloss: float = 0.0
    available_margin: float = 0.0
    plus_margin: float = 0.0
    plus_margin_indicator: float = 0.0
    security_collateral_amount: float = 0.0
    order_margin_premium: float = 0.0
    collateral_amount: float = 0.0
    status: FetchStatus = FetchStatus.Unfetch


class Settlement(BaseModel):
    """Amounts due today (T) and on the next two business days."""

    t_money: float = 0.0
    t1_money: float = 0.0
    t2_money: float = 0.0
    t_day: str = ""
    t1_day: str = ""
    t2_day: str = ""
    status: FetchStatus = FetchStatus.Unfetch


class SettlementV1(BaseModel):
    """One settlement day: its date, the amount due and its offset T from today."""

    date: str = ""
    amount: float = 0.0
    T: int = 0


class Ticks(BaseModel):
    """The ticks of one contract, one list per column, in time order."""

    ts: List[int] = []
    close: List[float] = []
    volume: List[int] = []
    bid_price: List[float] = []
    bid_volume: List[int] = []
    ask_price: List[float] = []
    ask_volume: List[int] = []
    tick_type: List[int] = []

    df = _columns_df


class Kbars(BaseModel):
    """Bars of one contract, one list per column, in time order."""

    ts: List[int] = []
    Open: List[float] = []
    High: List[float] = []
    Low: List[float] = []
    Close: List[float] = []
    Volume: List[int] = []
    Amount: List[float] = []

    df = _columns_df


class DailyQuotes(BaseModel):
    """The daily quote of every contract on one date, one list per column."""

    Date: List[str] = []
    Code: List[str] = []
    Open: List[float] = []
    High: List[float] = []
    Low: List[float] = []
    Close: List[float] = []
    Volume: List[int] = []
    Transaction: List[int] = []
    Amount: List[float] = []

    df = _columns_df


class Snapshot(BaseModel):
    ts: int = 0
    code: str
    exchange: str = ""
    open: float = 0.0
    high: float = 0.0
    low: float = 0.0
    close: float = 0.0
    tick_type: TickType = TickType.No
    change_price: float = 0.0
    change_rate: float = 0.0
    change_type: ChangeType = ChangeType.Unchanged
    average_price: float = 0.0
    volume: int = 0
    total_volume: int = 0
    amount: float = 0.0
    total_amount: float = 0.0
    yesterday_volume: float = 0.0
    buy_price: float = 0.0
    buy_volume: float = 0.0
    sell_price: float = 0.0
    sell_volume: float = 0.0
    volume_ratio: float = 0.0


class ChangePercentRank(BaseModel):
    """One row of a scanner's ranking; ``rank_value`` is what the scanner ranked by."""

    date: str = ""
    code: str
    name: str = ""
    ts: int = 0
    open: float = 0.0
    high: float = 0.0
    low: float = 0.0
    close: float = 0.0
    price_range: float = 0.0
    tick_type: TickType = TickType.No
    change_price: float = 0.0
    change_type: ChangeType = ChangeType.Unchanged
    average_price: float = 0.0
    volume: int = 0
    total_volume: int = 0
    amount: float = 0.0
    total_amount: float = 0.0
    yesterday_volume: float = 0.0
    volume_ratio: float = 0.0
    buy_price: float = 0.0
    buy_volume: float = 0.0
    sell_price: float = 0.0
    sell_volume: float = 0.0
    bid_orders: int = 0
    bid_volumes: int = 0
    ask_orders: int = 0
    ask_volumes: int = 0
    rank_value: float = 0.0


class CreditEnquire(BaseModel):
    """Margin-purchase and short-sale credit of one stock at one credit system."""

    update_time: str = ""
    system: str = ""
    stock_id: str
    margin_unit: int = 0
    short_unit: int = 0


class ShortStockSource(BaseModel):
    code: str
    short_stock_source: int = 0
    ts: int = 0


class CASign(PositionalModel):
    """A text and its signature by the person's certificate."""

    signature: str = Field(default="", repr=False)
    plain_text: str = ""


class TraceLog(BaseModel):
    """One audit record of client activity (a login or an order placement)."""

    person_id: Optional[str] = None
    account: Optional[AnyAccount] = None
    ip: Optional[str] = None
    action: str
    func: str
    func_content: Dict[str, Any] = {}
    result: Literal["S", "F"] = "S"
