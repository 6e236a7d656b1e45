"""Tables of the records the commands show: accounts, contracts, trades, positions, money."""

from typing import Any, Iterable, Optional, Sequence

from rich.table import Table

from quorvex.cli.board import price_text, quantity_text

__all__ = [
    "accounts_table",
    "balance_table",
    "contracts_table",
    "positions_table",
    "profit_loss_table",
    "trades_table",
]

_SECURITY_NAMES = {"IND": "Index", "STK": "Stock", "FUT": "Future", "OPT": "Option"}


def _table(title: str, columns: Sequence[str], numeric: Iterable[str] = ()) -> Table:
    right = set(numeric)
    table = Table(title=title, title_justify="left")
    for column in columns:
        table.add_column(column, justify="right" if column in right else "left", no_wrap=True)
    return table


def _value(record: Any, name: str, default: Any = "") -> Any:
    value = getattr(record, name, default)
    return default if value is None else value


def _money(value: Any) -> str:
    try:
        return f"{float(value):,.0f}"
    except (TypeError, ValueError):
        return str(value)


def accounts_table(accounts: Sequence[Any]) -> Table:
    table = _table("Accounts", ["Type", "Broker", "Account", "Person", "Signed", "Name"])
    for account in accounts:
        kind = str(_value(account, "account_type"))
        table.add_row(
            {"S": "Stock", "F": "Futures/options"}.get(kind, kind),
            str(_value(account, "broker_id")),
            str(_value(account, "account_id")),
            str(_value(account, "person_id")),
            "yes" if _value(account, "signed", False) else "no",
            str(_value(account, "username")),
        )
    return table


def contracts_table(contracts: Sequence[Any], total: Optional[int] = None) -> Table:
    shown = len(contracts)
    title = "Contracts" if total is None or total == shown else f"Contracts ({shown} of {total} matches)"
    table = _table(
        title,
        [
            "Type",
            "Code",
            "Symbol",
            "Name",
            "Group",
            "Reference",
            "Limit up",
            "Limit down",
            "Delivery",
            "Unit",
        ],
        numeric=("Reference", "Limit up", "Limit down", "Unit"),
    )
    for contract in contracts:
        security_type = str(_value(contract, "security_type"))
        group = (
            _value(contract, "category") if security_type in ("FUT", "OPT") else _value(contract, "exchange")
        )
        table.add_row(
            _SECURITY_NAMES.get(security_type, security_type),
            str(_value(contract, "code")),
            str(_value(contract, "symbol")),
            str(_value(contract, "name")),
            str(group),
            price_text(_value(contract, "reference", None)),
            price_text(_value(contract, "limit_up", None)),
            price_text(_value(contract, "limit_down", None)),
            str(_value(contract, "delivery_date")),
            quantity_text(_value(contract, "unit", None)),
        )
    return table


def trades_table(trades: Sequence[Any], title: str = "Trades") -> Table:
    table = _table(
        title,
        ["Code", "Action", "Price", "Type", "Qty", "Filled", "Cancelled", "Status", "Order no.", "Message"],
        numeric=("Price", "Qty", "Filled", "Cancelled"),
    )
    for trade in trades:
        order, status, contract = trade.order, trade.status, trade.contract
        table.add_row(
            str(contract.code),
            str(order.action),
            price_text(order.price),
            f"{order.price_type} {order.order_type}",
            quantity_text(order.quantity),
            quantity_text(status.deal_quantity),
            quantity_text(status.cancel_quantity),
            str(status.status),
            str(order.ordno or order.seqno or "-"),
            str(status.msg or ""),
        )
    return table


def positions_table(positions: Sequence[Any], title: str) -> Table:
    table = _table(
        title,
        ["Code", "Side", "Qty", "Avg price", "Last", "Unrealised P&L"],
        numeric=("Qty", "Avg price", "Last", "Unrealised P&L"),
    )
    for position in positions:
        table.add_row(
            str(_value(position, "code")),
            str(_value(position, "direction")),
            quantity_text(_value(position, "quantity", None)),
            price_text(_value(position, "price", None)),
            price_text(_value(position, "last_price", None)),
            _money(_value(position, "pnl", 0)),
        )
    return table


def profit_loss_table(items: Sequence[Any], title: str) -> Table:
    table = _table(title, ["Date", "Code", "Qty", "Realised P&L"], numeric=("Qty", "Realised P&L"))
    for item in items:
        table.add_row(
            str(_value(item, "date")),
            str(_value(item, "code")),
            quantity_text(_value(item, "quantity", None)),
            _money(_value(item, "pnl", 0)),
        )
    return table


def balance_table(balance: Any, margin: Any) -> Table:
    """The stock account's cash balance beside the futures account's margin sheet."""
    table = _table("Money", ["Account", "Item", "Amount (TWD)"], numeric=("Amount (TWD)",))
    if balance is not None:
        table.add_row("Stock", "Balance", _money(_value(balance, "acc_balance", 0)))
    if margin is not None:
        for name, label in (
            ("equity", "Equity"),
            ("initial_margin", "Initial margin"),
            ("maintenance_margin", "Maintenance margin"),
            ("available_margin", "Available margin"),
            ("future_open_position", "Open position P&L"),
            ("fee", "Fees"),
            ("tax", "Tax"),
        ):
            table.add_row("Futures", label, _money(_value(margin, name, 0)))
    return table
