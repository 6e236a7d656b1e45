"""Contracts and the contract master.

The contract master arrives page by page as raw dicts. ``Contracts`` keeps those dicts as
they came and builds a contract record only when one is first looked up, so a download of
every listed contract costs one dictionary insert per contract.
"""

from collections.abc import Mapping
from typing import Any, Dict, Iterator, List, Optional, Type, Union

from pydantic import BeforeValidator, ConfigDict, SerializeAsAny
from typing_extensions import Annotated

from quorvex.common import BaseModel
from quorvex.constant import (
    Action,
    Currency,
    DayTrade,
    Exchange,
    FetchStatus,
    OptionRight,
    SecurityType,
)

__all__ = [
    "AnyContract",
    "BaseContract",
    "ComboBase",
    "ComboContract",
    "Contract",
    "ContractGroup",
    "ContractPage",
    "Contracts",
    "FetchStatus",
    "Future",
    "FutureContractPage",
    "Index",
    "IndexContractPage",
    "Option",
    "OptionContractPage",
    "ProductContracts",
    "SecurityType",
    "Stock",
    "StockContractPage",
    "get_product_contracts",
]


class BaseContract(BaseModel):
    """What identifies a contract; building one from a fuller contract drops the rest."""

    model_config = ConfigDict(extra="ignore")

    security_type: SecurityType
    exchange: Exchange
    code: str


class Contract(BaseContract):
    """A tradable instrument with the attributes of every security type."""

    symbol: str = ""
    name: str = ""
    category: str = ""
    currency: Currency = Currency.TWD
    unit: int = 0
    multiplier: int = 0
    limit_up: float = 0.0
    limit_down: float = 0.0
    reference: float = 0.0
    update_date: str = ""
    day_trade: DayTrade = DayTrade.No
    margin_trading_balance: int = 0
    short_selling_balance: int = 0
    delivery_month: str = ""
    delivery_date: str = ""
    underlying_kind: str = ""
    underlying_code: str = ""
    strike_price: float = 0.0
    option_right: OptionRight = OptionRight.No
    target_code: str = ""


class Index(Contract):
    security_type: SecurityType = SecurityType.Index


class Stock(Contract):
    security_type: SecurityType = SecurityType.Stock


class Future(Contract):
    security_type: SecurityType = SecurityType.Future


class Option(Contract):
    security_type: SecurityType = SecurityType.Option


_CONTRACT_CLASS: Dict[SecurityType, Type[Contract]] = {
    SecurityType.Index: Index,
    SecurityType.Stock: Stock,
    SecurityType.Future: Future,
    SecurityType.Option: Option,
}


def _contract_record(value: Any) -> Any:
    # A dict becomes the contract class its security type names, so records that hold a
    # contract give back the same class after a trip through dict().
    if isinstance(value, dict):
        security_type = value.get("security_type")
        cls = _CONTRACT_CLASS.get(security_type, Contract) if isinstance(security_type, str) else Contract
        return cls(**value)
    return value


AnyContract = Annotated[SerializeAsAny[BaseContract], BeforeValidator(_contract_record)]


class ComboBase(Contract):
    """One leg of a combination: a contract and the side taken on it."""

    action: Action


class ComboContract(BaseModel):
    legs: List[ComboBase]


class ContractPage:
    """One page of the contract master for one security type, kept as raw dicts."""

    security_type: SecurityType
    __slots__ = ("contracts",)

    def __init__(self, contracts: List[Dict[str, Any]]) -> None:
        if not isinstance(contracts, list):
            raise TypeError(
                "{} expects the list of contract dicts of one page, got {}".format(
                    type(self).__name__, type(contracts).__name__
                )
            )
        self.contracts = contracts

    def __len__(self) -> int:
        return len(self.contracts)

    def __repr__(self) -> str:
        return "{}({} contracts)".format(type(self).__name__, len(self.contracts))


class IndexContractPage(ContractPage):
    security_type = SecurityType.Index
    __slots__ = ()


class StockContractPage(ContractPage):
    security_type = SecurityType.Stock
    __slots__ = ()


class FutureContractPage(ContractPage):
    security_type = SecurityType.Future
    __slots__ = ()


class OptionContractPage(ContractPage):
    security_type = SecurityType.Option
    __slots__ = ()


_PAGE_CLASS: Dict[SecurityType, Type[ContractPage]] = {
    SecurityType.Index: IndexContractPage,
    SecurityType.Stock: StockContractPage,
    SecurityType.Future: FutureContractPage,
    SecurityType.Option: OptionContractPage,
}


def _security_type(value: Union[SecurityType, str]) -> SecurityType:
    try:
        return SecurityType(value)
    except ValueError:
        raise ValueError(
            "unknown security type {!r}; expected one of {}".format(
                value, ", ".join(m.value for m in SecurityType)
            )
        ) from None


def get_product_contracts(security_type: Union[SecurityType, str]) -> Type[ContractPage]:
    """The page class of a security type; call it with one page's list of contract dicts."""
    return _PAGE_CLASS[_security_type(security_type)]


class ContractGroup(Mapping):
    """The contracts of one exchange (indexes, stocks) or one product (futures, options)."""

    __slots__ = ("name", "_owner", "_codes")

    def __init__(self, name: str, owner: "ProductContracts") -> None:
        self.name = name
        self._owner = owner
        self._codes: Dict[str, None] = {}

    def _code_of(self, key: str) -> Optional[str]:
        if key in self._codes:
            return key
        code = self._owner._symbols.get(key)
        return code if code in self._codes else None

    def __getitem__(self, key: str) -> Contract:
        code = self._code_of(key)
        if code is None:
            raise KeyError("no contract {!r} in {}.{}".format(key, self._owner.name, self.name))
        return self._owner._record(code)

    def __contains__(self, key: object) -> bool:
        return isinstance(key, str) and self._code_of(key) is not None

    def get(self, key: str, default: Any = None) -> Any:
        code = self._code_of(key)
        return default if code is None else self._owner._record(code)

    def __getattr__(self, name: str) -> Contract:
        # Symbols and letter-led codes also read as attributes: Futures.TXF.TXF202612.
        if name.startswith("_"):
            raise AttributeError(name)
        code = self._code_of(name)
        if code is None:
            raise AttributeError("no contract {!r} in {}.{}".format(name, self._owner.name, self.name))
        return self._owner._record(code)

    def __iter__(self) -> Iterator[str]:
        return iter(list(self._codes))

    def __len__(self) -> int:
        return len(self._codes)

    def __repr__(self) -> str:
        return "{}.{}({} contracts)".format(self._owner.name, self.name, len(self._codes))


class ProductContracts(Mapping):
    """All contracts of one security type, looked up by code or symbol.

    Iterating gives codes; ``len`` counts contracts. Each exchange (indexes, stocks) or
    product (futures, options) is an attribute holding a ``ContractGroup``, as
    ``Stocks.TSE`` or ``Futures.TXF``.
    """

    __slots__ = (
        "security_type",
        "name",
        "status",
        "_pages_max",
        "_page_list",
        "_record_class",
        "_group_field",
        "_raw",
        "_built",
        "_symbols",
        "_groups",
    )

    def __init__(self, security_type: SecurityType) -> None:
        self.security_type = security_type
        self.name = security_type.name + "s"
        self.status = FetchStatus.Unfetch
        self._pages_max = 0
        self._page_list: List[int] = []
        self._record_class = _CONTRACT_CLASS[security_type]
        group_by_product = security_type in (SecurityType.Future, SecurityType.Option)
        self._group_field = "category" if group_by_product else "exchange"
        self._raw: Dict[str, Dict[str, Any]] = {}
        self._built: Dict[str, Contract] = {}
        self._symbols: Dict[str, str] = {}
        self._groups: Dict[str, ContractGroup] = {}

    def append(self, block: Union[ContractPage, List[Dict[str, Any]]]) -> int:
        """Take one page; returns how many contracts it added or replaced.

        Entries without a text ``code`` cannot be looked up and are skipped.
        """
        if isinstance(block, ContractPage):
            if block.security_type is not self.security_type:
                raise ValueError("a {} page cannot go into {}".format(block.security_type.name, self.name))
            contracts = block.contracts
        elif isinstance(block, list):
            contracts = block
        else:
            raise TypeError(
                "{}.append expects a contract page or a list of contract dicts, got {}".format(
                    self.name, type(block).__name__
                )
            )
        raw_by_code, built, symbols, groups = self._raw, self._built, self._symbols, self._groups
        group_field = self._group_field
        taken = 0
        for raw in contracts:
            code = raw.get("code") if isinstance(raw, dict) else None
            if not isinstance(code, str) or not code:
                continue
            raw_by_code[code] = raw
            built.pop(code, None)
            symbol = raw.get("symbol")
            if symbol and symbol != code:
                symbols[symbol] = code
            group_name = raw.get(group_field)
            if group_name:
                group_name = str(group_name)
                group = groups.get(group_name)
                if group is None:
                    group = groups[group_name] = ContractGroup(group_name, self)
                group._codes[code] = None
            taken += 1
        return taken

    def set_status_fetched(self) -> None:
        self.status = FetchStatus.Fetched

    @property
    def _max_page(self) -> int:
        """How many pages the broker has for this type, from the download's probe."""
        return self._pages_max

    @_max_page.setter
    def _max_page(self, pages: int) -> None:
        # A download's probe: contracts already held (from the contracts file or an earlier
        # download) are replaced by what this download brings, never merged with it.
        if self.status is FetchStatus.Fetched:
            self._raw.clear()
            self._built.clear()
            self._symbols.clear()
            self._groups.clear()
            self.status = FetchStatus.Unfetch
        self._pages_max = pages

    def raw_contracts(self) -> List[Dict[str, Any]]:
        """The contracts as they arrived, for storage."""
        return list(self._raw.values())

    def _record(self, code: str) -> Contract:
        record = self._built.get(code)
        if record is None:
            record = self._record_class(**self._raw[code])
            self._built[code] = record
        return record

    def _code_of(self, key: str) -> Optional[str]:
        if key in self._raw:
            return key
        return self._symbols.get(key)

    def __getitem__(self, key: str) -> Contract:
        code = self._code_of(key) if isinstance(key, str) else None
        if code is None:
            raise KeyError("no contract {!r} in {}".format(key, self.name))
        return self._record(code)

    def get(self, key: str, default: Any = None) -> Any:
        code = self._code_of(key) if isinstance(key, str) else None
        return default if code is None else self._record(code)

    def __contains__(self, key: object) -> bool:
        return isinstance(key, str) and self._code_of(key) is not None

    def __iter__(self) -> Iterator[str]:
        return iter(list(self._raw))

    def __len__(self) -> int:
        return len(self._raw)

    def __getattr__(self, name: str) -> ContractGroup:
        if name.startswith("_"):
            raise AttributeError(name)
        group = self._groups.get(name)
        if group is not None:
            return group
        raise AttributeError(
            "{} has no exchange or product {!r}; known: {}".format(
                self.name, name, ", ".join(sorted(self._groups)) or "none yet"
            )
        )

    def __dir__(self) -> List[str]:
        return sorted(set(super().__dir__()) | set(self._groups))

    def __repr__(self) -> str:
        return "{}({} contracts, {})".format(self.name, len(self._raw), self.status.value)


class Contracts:
    """The contract master: one ``ProductContracts`` per security type.

    ``Indexs``, ``Stocks``, ``Futures`` and ``Options`` are named after the security types.
    """

    def __init__(self) -> None:
        self.status = FetchStatus.Unfetch
        # The broker host the contracts came from, when the owner knows it (the contracts file
        # keeps it, so a file from another broker is not taken for this one's).
        self.host: Optional[str] = None
        self.trading_day: Optional[str] = None
        for security_type in SecurityType:
            setattr(self, security_type.name + "s", ProductContracts(security_type))

    def of(self, security_type: Union[SecurityType, str]) -> ProductContracts:
        """The collection of one security type."""
        return getattr(self, _security_type(security_type).name + "s")

    def _futures_of(self, product: str) -> List[Contract]:
        if not isinstance(product, str) or not product:
            raise ValueError("product must be a futures product code such as 'TXF', got {!r}".format(product))
        futures: ProductContracts = getattr(self, SecurityType.Future.name + "s")
        group = futures._groups.get(product.upper())
        listed = [group[code] for code in group] if group is not None else []
        # Continuous contracts ("TXFR1") name a real month in target_code; they are not months.
        return sorted(
            (c for c in listed if not c.target_code and c.delivery_date),
            key=lambda c: (c.delivery_date, c.code),
        )

    def near_month(self, product: str) -> Optional[Contract]:
        """The future of ``product`` ("TXF") with the nearest delivery; None when not listed."""
        months = self._futures_of(product)
        return months[0] if months else None

    def continuous(self, product: str, rank: int = 1) -> Optional[Contract]:
        """The ``rank``-th nearest month of ``product`` (1: the near month, 2: the next), as a
        continuous contract whose ``target_code`` names that month; None when not listed.

        Quotes and orders of a continuous contract go to its ``target_code``.
        """
        if isinstance(rank, bool) or not isinstance(rank, int) or rank < 1:
            raise ValueError("rank must be a whole number from 1 (the near month), got {!r}".format(rank))
        months = self._futures_of(product)
        if len(months) < rank:
            return None
        month = months[rank - 1]
        code = "{}R{}".format(product.upper(), rank)
        listed = getattr(self, SecurityType.Future.name + "s").get(code)
        if listed is not None and listed.target_code == month.code:
            return listed  # type: ignore[no-any-return]
        return month.model_copy(update={"code": code, "symbol": code, "target_code": month.code})

    def __iter__(self) -> Iterator[ProductContracts]:
        return (self.of(security_type) for security_type in SecurityType)

    def __len__(self) -> int:
        return sum(len(collection) for collection in self)

    def __repr__(self) -> str:
        parts = ", ".join("{}={}".format(c.name, len(c)) for c in self)
        return "Contracts({}, {})".format(self.status.value, parts)
