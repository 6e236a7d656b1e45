"""Enumerations of the client library.

Every enumeration is text based: its members are ``str`` instances, so they travel on the wire
as their values, compare equal to their values (``AccountType.Stock == "S"``) and print as
their values on every Python version.
"""

from enum import Enum

__all__ = [
    "Action",
    "AccountType",
    "ChangeType",
    "Currency",
    "DayTrade",
    "Exchange",
    "FetchStatus",
    "FuturesOCType",
    "FuturesOrderType",
    "FuturesPriceType",
    "OptionRight",
    "OrderState",
    "OrderType",
    "PriceType",
    "QuoteType",
    "QuoteVersion",
    "ScannerType",
    "SecurityType",
    "Status",
    "StockOrderCond",
    "StockOrderLot",
    "StockPriceType",
    "TickType",
    "TicksQueryType",
    "TradeType",
    "Unit",
]


class TextEnum(str, Enum):
    """Base of the library's enumerations: a text value that formats as itself."""

    def __str__(self) -> str:
        return self.value

    def __format__(self, pattern: str) -> str:
        # Python 3.12 changed format() of mixed-in enums; pin the value form everywhere.
        return format(self.value, pattern)

    def __hash__(self) -> int:
        # Enum hashes by member name; hash by value so a member and its text find the same
        # dictionary entry, as their equality promises.
        return str.__hash__(self)


class Exchange(TextEnum):
    TSE = "TSE"
    OTC = "OTC"
    OES = "OES"
    TAIFEX = "TAIFEX"


class SecurityType(TextEnum):
    # The contract download walks this order; keep it.
    Index = "IND"
    Stock = "STK"
    Future = "FUT"
    Option = "OPT"


class FetchStatus(TextEnum):
    Unfetch = "Unfetch"
    Fetching = "Fetching"
    Fetched = "Fetched"


class Status(TextEnum):
    """Life cycle of an order at the broker."""

    PendingSubmit = "PendingSubmit"
    PreSubmitted = "PreSubmitted"
    Submitted = "Submitted"
    Failed = "Failed"
    Cancelled = "Cancelled"
    Filled = "Filled"
    PartFilled = "PartFilled"
    Inactive = "Inactive"


class OrderState(TextEnum):
    """Kind of an order or deal report pushed to the session."""

    TFTOrder = "TFTOrder"
    TFTDeal = "TFTDeal"
    FOrder = "FOrder"
    FDeal = "FDeal"
    Order = "Order"
    Deal = "Deal"


class QuoteType(TextEnum):
    Tick = "tick"
    BidAsk = "bidask"
    Quote = "quote"


class QuoteVersion(TextEnum):
    v0 = "v0"
    v1 = "v1"


class TicksQueryType(TextEnum):
    AllDay = "AllDay"
    RangeTime = "RangeTime"
    LastCount = "LastCount"


class ScannerType(TextEnum):
    ChangePercentRank = "ChangePercentRank"
    ChangePriceRank = "ChangePriceRank"
    DayRangeRank = "DayRangeRank"
    VolumeRank = "VolumeRank"
    AmountRank = "AmountRank"
    TickCountRank = "TickCountRank"


class Unit(TextEnum):
    """Quantity unit of position queries: board lots or single shares."""

    Common = "Common"
    Share = "Share"


class AccountType(TextEnum):
    Stock = "S"
    Future = "F"
    H = "H"


class Action(TextEnum):
    Buy = "Buy"
    Sell = "Sell"


class PriceType(TextEnum):
    LMT = "LMT"
    MKT = "MKT"
    MKP = "MKP"


StockPriceType = PriceType
FuturesPriceType = PriceType


class OrderType(TextEnum):
    ROD = "ROD"
    IOC = "IOC"
    FOK = "FOK"


FuturesOrderType = OrderType


class StockOrderLot(TextEnum):
    Common = "Common"
    Odd = "Odd"
    IntradayOdd = "IntradayOdd"
    Fixing = "Fixing"


class StockOrderCond(TextEnum):
    Cash = "Cash"
    MarginTrading = "MarginTrading"
    ShortSelling = "ShortSelling"


class FuturesOCType(TextEnum):
    Auto = "Auto"
    New = "New"
    Cover = "Cover"
    DayTrade = "DayTrade"


class OptionRight(TextEnum):
    # Non-option contracts carry the empty right.
    No = ""
    Call = "C"
    Put = "P"


class DayTrade(TextEnum):
    Yes = "Yes"
    OnlyBuy = "OnlyBuy"
    No = "No"


class TradeType(TextEnum):
    Common = "Common"
    DayTrade = "DayTrade"


class TickType(TextEnum):
    No = "None"
    Buy = "Buy"
    Sell = "Sell"


class ChangeType(TextEnum):
    LimitUp = "LimitUp"
    Up = "Up"
    Unchanged = "Unchanged"
    Down = "Down"
    LimitDown = "LimitDown"


class Currency(TextEnum):
    TWD = "TWD"
    USD = "USD"
    HKD = "HKD"
    GBP = "GBP"
    AUD = "AUD"
    CAD = "CAD"
    SGD = "SGD"
    CHF = "CHF"
    JPY = "JPY"
    ZAR = "ZAR"
    SEK = "SEK"
    NZD = "NZD"
    THB = "THB"
    PHP = "PHP"
    IDR = "IDR"
    EUR = "EUR"
    KRW = "KRW"
    VND = "VND"
    MYR = "MYR"
    CNY = "CNY"
