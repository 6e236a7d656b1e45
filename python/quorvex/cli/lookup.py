"""Finding contracts in the contract master by what a user types: a code, a symbol, a futures
product, or part of a name."""

from typing import Any, Iterable, List, Optional, Tuple

from quorvex.cli.errors import EXIT_UNKNOWN_CODE, CliError
from quorvex.constant import SecurityType

__all__ = ["lookup", "near_month", "resolve", "search"]

# The order in which a code is looked up: what a user most often means first.
LOOKUP_ORDER = (SecurityType.Stock, SecurityType.Future, SecurityType.Option, SecurityType.Index)


def lookup(contracts: Any, code: str) -> Optional[Any]:
    """The contract with this code or symbol, of any security type; None when unknown."""
    for security_type in LOOKUP_ORDER:
        collection = contracts.of(security_type)
        for key in (code, code.upper()):
            contract = collection.get(key)
            if contract is not None:
                return contract
    return None


def near_month(contracts: Any, product: str) -> Optional[Any]:
    """The future of `product` (e.g. "TXF") with the nearest delivery; None when not listed."""
    try:
        group = getattr(contracts.Futures, product.upper())
    except AttributeError:
        return None
    listed = [group[code] for code in group]
    dated = [c for c in listed if c.delivery_date] or listed
    if not dated:
        return None
    return min(dated, key=lambda c: (c.delivery_date, c.code))


def resolve(contracts: Any, codes: Iterable[str]) -> List[Any]:
    """Contracts for codes, symbols or futures products; an unknown one is an error naming it."""
    found = []
    for code in codes:
        contract = lookup(contracts, code) or near_month(contracts, code)
        if contract is None:
            raise CliError(
                f"unknown code {code!r}: no stock, future, option or index has this code or symbol",
                EXIT_UNKNOWN_CODE,
                hint=f"find codes with: quorvex contracts {code}",
            )
        found.append(contract)
    return found


def search(
    contracts: Any, text: str = "", security_type: Optional[SecurityType] = None, limit: int = 20
) -> Tuple[List[Any], int]:
    """Contracts whose code, symbol or name contains `text` (any letter case): the first `limit`,
    the exact code first, then codes starting with it, then the rest, each by type and code;
    and how many matched in all. Only the contracts shown are built as records."""
    needle = text.casefold()
    types = [security_type] if security_type else list(LOOKUP_ORDER)
    ranked = []
    for order, kind in enumerate(types):
        for raw in contracts.of(kind).raw_contracts():
            code = str(raw.get("code", ""))
            fields = (code, str(raw.get("symbol", "")), str(raw.get("name", "")))
            if needle and not any(needle in field.casefold() for field in fields):
                continue
            folded = code.casefold()
            closeness = 0 if folded == needle else 1 if folded.startswith(needle) else 2
            ranked.append((closeness, order, code, kind))
    ranked.sort()
    chosen = [contracts.of(kind)[code] for _, _, code, kind in ranked[:limit]]
    return chosen, len(ranked)
