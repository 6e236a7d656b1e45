"""`quorvex quote`, `quorvex contracts` and `quorvex broker`."""

import os
import signal
import threading
import time
from typing import Any, List, Optional, Sequence

from rich.console import Console
from rich.markup import escape

from quorvex.cli.board import QuoteBoard
from quorvex.cli.connection import BUS_VPN, BrokerSession, credentials_for, probe_broker, replay_config
from quorvex.cli.errors import EXIT_BAD_ARGUMENTS, EXIT_OK, EXIT_UNKNOWN_CODE, EXIT_UNREACHABLE, CliError
from quorvex.cli.lookup import resolve
from quorvex.cli.lookup import search as find
from quorvex.cli.streaming import stream_quotes
from quorvex.cli.tables import contracts_table
from quorvex.constant import SecurityType

__all__ = ["run_broker", "run_contracts", "run_quote"]


def _open_session(host: str, api_key: Optional[str], console: Console) -> BrokerSession:
    credentials = credentials_for(host, api_key)
    probe_broker(host)
    session = BrokerSession(host)
    try:
        session.login(credentials)
        with console.status("downloading the contract master", spinner="dots"):
            session.download_contracts()
    except BaseException:
        session.close()
        raise
    return session


def run_quote(
    host: str, api_key: Optional[str], codes: Sequence[str], seconds: float, console: Console
) -> int:
    with _open_session(host, api_key, console) as session:
        contracts = resolve(session.contracts, codes)
        board = QuoteBoard(contracts)
        listed = ", ".join(f"{c.code} {c.name}" for c in contracts)
        console.print(f"Streaming {escape(listed)} for {seconds:g} s (Ctrl-C stops)")
        stream_quotes(session.api, board, contracts, seconds, console, title="Quotes")
        counts = board.counts()
        console.print("{ticks} ticks and {bidasks} bid/asks".format(**counts))
        if board.errors:
            console.print(
                "[red]{} quote records could not be read; first: {}[/]".format(
                    board.errors, escape(board.first_error or "")
                )
            )
    return EXIT_OK


def run_contracts(
    host: str,
    api_key: Optional[str],
    search: str,
    security_type: Optional[SecurityType],
    limit: int,
    console: Console,
) -> int:
    with _open_session(host, api_key, console) as session:
        found, total = find(session.contracts, search, security_type, limit)
        if not found:
            kind = f" of type {security_type.value}" if security_type else ""
            raise CliError(
                f"no contract{kind} matches {search!r}; expected part of a code, symbol or name",
                EXIT_UNKNOWN_CODE,
            )
        console.print(contracts_table(found, total))
    return EXIT_OK


def run_broker(
    name: str,
    seconds: Optional[float],
    console: Console,
    host: Optional[str] = None,
    user: str = "",
    password_env: Optional[str] = None,
) -> int:
    """The paper broker until interrupted (or for `seconds`): on the in-process bus `name`, or
    on the network bus at `host` (mqtt://HOST:PORT) for sessions of other processes."""
    try:
        from quorvex.paper import DEMO, PaperBroker
    except ImportError as error:
        raise CliError(
            f"the paper broker is not part of this build ({error}); expected the module quorvex.paper",
            EXIT_UNREACHABLE,
        ) from None
    password = ""
    if password_env:
        password = os.environ.get(password_env, "")
        if not password:
            raise CliError(
                f"--password-env names {password_env}, which is not set; expected the bus password there",
                EXIT_BAD_ARGUMENTS,
            )
    stop = threading.Event()
    previous = _stop_on_terminate(stop)
    broker = PaperBroker(replay_config())
    try:
        try:
            if host:
                broker.attach(host, vpn=BUS_VPN, user=user, password=password)
            else:
                broker.attach(name)
        except RuntimeError as error:
            raise CliError(f"cannot serve {host or name}: {error}", EXIT_UNREACHABLE) from None
        where = "" if host else f" (the in-process bus {name!r}, this process only)"
        console.print(f"[bold]Paper broker[/] listening on [cyan]{escape(broker.host)}[/]{where}")
        console.print(
            f"  demo person {escape(DEMO.person_id)}, API key {escape(DEMO.api_key)} "
            "(its secret key is documented in docs/protocol.md)"
        )
        if host:
            console.print(f"  try: quorvex demo --host {escape(host)}")
        console.print("  stop with Ctrl-C" + (f" (or after {seconds:g} s)" if seconds else ""))
        deadline = None if seconds is None else time.monotonic() + seconds
        # Short waits keep Ctrl-C responsive on every platform.
        while not stop.is_set() and (deadline is None or time.monotonic() < deadline):
            stop.wait(0.2)
    except KeyboardInterrupt:
        pass
    finally:
        broker.close()
        _restore_terminate(previous)
    console.print("Paper broker stopped.")
    return EXIT_OK


def _stop_on_terminate(stop: threading.Event) -> Any:
    if threading.current_thread() is not threading.main_thread():
        return None
    return signal.signal(signal.SIGTERM, lambda signum, frame: stop.set())


def _restore_terminate(previous: Any) -> None:
    if previous is not None:
        signal.signal(signal.SIGTERM, previous)


def codes_argument(values: List[str]) -> List[str]:
    """Codes may also be given comma-separated: `quorvex quote 2330,2317 TXF`."""
    return [code for value in values for code in value.split(",") if code]
