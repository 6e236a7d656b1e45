"""Streaming quotes into the board for a fixed time, live on a terminal, once elsewhere."""

import contextlib
import time
from typing import Any, Sequence

from rich.console import Console
from rich.live import Live

from quorvex.cli.board import QuoteBoard
from quorvex.cli.errors import EXIT_BAD_ARGUMENTS, CliError
from quorvex.constant import QuoteType, QuoteVersion

__all__ = ["QUOTE_KINDS", "stream_quotes"]

_REFRESH_S = 0.25


QUOTE_KINDS = (QuoteType.Tick, QuoteType.BidAsk)


def _each_subscription(api: Any, contracts: Sequence[Any], method: str) -> None:
    call = getattr(api, method)
    for contract in contracts:
        for kind in QUOTE_KINDS:
            call(contract, kind, False, QuoteVersion.v1)


def stream_quotes(
    api: Any,
    board: QuoteBoard,
    contracts: Sequence[Any],
    seconds: float,
    console: Console,
    title: str = "Quotes",
) -> None:
    """Subscribe, show the board for `seconds`, unsubscribe. On a terminal the table refreshes
    in place; otherwise it is printed once, at the end."""
    board.attach(api)
    try:
        try:
            _each_subscription(api, contracts, "subscribe")
        except (ValueError, TypeError) as error:
            raise CliError(f"cannot subscribe to quotes: {error}", EXIT_BAD_ARGUMENTS) from None
        deadline = time.monotonic() + seconds
        if console.is_terminal:
            with Live(board.table(title), console=console, refresh_per_second=8, transient=False) as live:
                while time.monotonic() < deadline:
                    time.sleep(min(_REFRESH_S, max(0.0, deadline - time.monotonic())))
                    live.update(board.table(title))
        else:
            while time.monotonic() < deadline:
                time.sleep(min(_REFRESH_S, max(0.0, deadline - time.monotonic())))
            console.print(board.table(title))
    finally:
        # Leaving the stream must not hide why it ended.
        with contextlib.suppress(Exception):
            _each_subscription(api, contracts, "unsubscribe")
