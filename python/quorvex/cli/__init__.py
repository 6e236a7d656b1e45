"""The `quorvex` command line.

    quorvex demo [--seconds N]                 the whole system end to end on the paper broker
    quorvex broker [--name NAME]               the paper broker on its own until interrupted
    quorvex quote CODE... [--seconds N]        stream quotes of stocks, futures and options
    quorvex contracts [SEARCH] [--type T]      find contracts by code, symbol or name

Exit statuses: 0 success, 1 a step failed, 2 bad arguments, 3 unknown code, 4 login refused,
5 broker unreachable, 130 interrupted.
"""

import argparse
import logging
import sys
from typing import Callable, List, Optional

from quorvex._version import __version__
from quorvex.cli.errors import (
    EXIT_BAD_ARGUMENTS,
    EXIT_FAILED,
    EXIT_INTERRUPTED,
    EXIT_UNREACHABLE,
    CliError,
)

__all__ = ["build_parser", "main"]

MAX_SECONDS = 3600.0
DEFAULT_DEMO_SECONDS = 5.0
DEFAULT_QUOTE_SECONDS = 10.0


def _seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number of seconds") from None
    if not 0 < value <= MAX_SECONDS:
        raise argparse.ArgumentTypeError(
            f"{text} seconds is out of range; expected more than 0 and at most {MAX_SECONDS:g}"
        )
    return value


def _limit(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a whole number") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"{value} is too small; expected at least 1")
    return value


def _security_type(text: str) -> "object":
    from quorvex.constant import SecurityType

    try:
        return SecurityType(text.upper())
    except ValueError:
        raise argparse.ArgumentTypeError(
            "{!r} is not a security type; expected one of {}".format(
                text, ", ".join(member.value for member in SecurityType)
            )
        ) from None


def _host(text: str) -> str:
    if "://" not in text:
        raise argparse.ArgumentTypeError(
            f"{text!r} is not a broker address; expected scheme://address, e.g. paper://demo"
        )
    return text


def _network_host(text: str) -> str:
    if not text.startswith(("mqtt://", "mqtts://")):
        raise argparse.ArgumentTypeError(
            f"{text!r} is not an MQTT broker address; expected mqtt://HOST:PORT or mqtts://HOST:PORT"
        )
    return text


def build_parser() -> argparse.ArgumentParser:
    from quorvex.cli.connection import SECRET_KEY_ENV, default_host

    parser = argparse.ArgumentParser(
        prog="quorvex",
        description="Trading client core for the Taiwan market, run end to end on the embedded paper broker.",
        epilog="Exit statuses: 0 success, 1 a step failed, 2 bad arguments, 3 unknown code, "
        "4 login refused, 5 broker unreachable.",
    )
    parser.add_argument("--version", action="version", version="quorvex {}".format(__version__))

    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--no-color", action="store_true", help="plain text without colours")
    common.add_argument("-v", "--verbose", action="store_true", help="log what the library does, to stderr")

    connected = argparse.ArgumentParser(add_help=False)
    connected.add_argument(
        "--host",
        type=_host,
        default=default_host(),
        help="broker address (default: the embedded paper broker, replaying this trading "
        "day's morning at ten times the speed: %(default)s)",
    )
    connected.add_argument(
        "--api-key",
        metavar="KEY",
        help=f"API key to log in with (the secret key is read from ${SECRET_KEY_ENV}); "
        "default: the paper broker's demo key",
    )

    sub = parser.add_subparsers(dest="command", metavar="COMMAND")

    demo = sub.add_parser(
        "demo",
        parents=[common],
        help="run the whole system end to end on the paper broker",
        description="Log in, download contracts, activate a certificate, stream quotes, "
        "trade a stock and a future, show reports, positions and money, log out.",
    )
    demo.add_argument(
        "--seconds",
        type=_seconds,
        default=DEFAULT_DEMO_SECONDS,
        metavar="N",
        help="how long to stream quotes (default %(default)g)",
    )
    demo.add_argument(
        "--host",
        type=_host,
        default=default_host(),
        help="broker address: the embedded paper broker by default, or the mqtt:// address a "
        "`quorvex broker --host` serves",
    )
    demo.set_defaults(run=_run_demo)

    broker = sub.add_parser(
        "broker", parents=[common], help="run the paper broker on its own until interrupted"
    )
    broker.add_argument(
        "--name",
        default="demo",
        help="name of the in-process bus it serves when no --host is given (default %(default)s)",
    )
    broker.add_argument(
        "--host",
        type=_network_host,
        help="serve the MQTT 5 broker at this address (mqtt://HOST:PORT or mqtts://HOST:PORT), "
        "so that sessions of other processes and machines reach it",
    )
    broker.add_argument("--user", default="", help="user name on that MQTT broker")
    broker.add_argument(
        "--password-env",
        metavar="VAR",
        help="environment variable holding the MQTT password (never on the command line)",
    )
    broker.add_argument("--seconds", type=_seconds, metavar="N", help="stop after N seconds")
    broker.set_defaults(run=_run_broker)

    quote = sub.add_parser(
        "quote",
        parents=[common, connected],
        help="stream quotes of the given codes",
        description="Stream ticks and best bid/ask of stocks, futures or options. "
        "A futures product (TXF) means its near month.",
    )
    quote.add_argument("codes", nargs="+", metavar="CODE", help="code or symbol, e.g. 2330 TXF TXF202601")
    quote.add_argument(
        "--seconds",
        type=_seconds,
        default=DEFAULT_QUOTE_SECONDS,
        metavar="N",
        help="how long to stream (default %(default)g)",
    )
    quote.set_defaults(run=_run_quote)

    contracts = sub.add_parser(
        "contracts", parents=[common, connected], help="find contracts by code or name"
    )
    contracts.add_argument("search", nargs="?", default="", help="part of a code, symbol or name")
    contracts.add_argument(
        "--type",
        dest="security_type",
        type=_security_type,
        metavar="STK|FUT|OPT|IND",
        help="only contracts of this security type",
    )
    contracts.add_argument(
        "--limit", type=_limit, default=20, metavar="N", help="show at most N contracts (default %(default)s)"
    )
    contracts.set_defaults(run=_run_contracts)
    return parser


# ---------------------------------------------------------------------- commands


def _run_demo(args: argparse.Namespace, console: "object") -> int:
    from quorvex.cli.console import Narrator
    from quorvex.cli.demo import STEPS, run_demo

    console.print(f"[bold]quorvex {__version__}[/]: the whole system on the embedded paper broker")
    return run_demo(args.host, args.seconds, Narrator(console, STEPS))


def _run_broker(args: argparse.Namespace, console: "object") -> int:
    from quorvex.cli.commands import run_broker

    return run_broker(args.name, args.seconds, console, args.host, args.user, args.password_env)


def _run_quote(args: argparse.Namespace, console: "object") -> int:
    from quorvex.cli.commands import codes_argument, run_quote

    return run_quote(args.host, args.api_key, codes_argument(args.codes), args.seconds, console)


def _run_contracts(args: argparse.Namespace, console: "object") -> int:
    from quorvex.cli.commands import run_contracts

    return run_contracts(args.host, args.api_key, args.search, args.security_type, args.limit, console)


# ---------------------------------------------------------------------- entry point


def _configure_logging(verbose: bool) -> Callable[[], None]:
    """Library logs go to stderr: warnings and errors by default, everything with --verbose.
    Returns what puts the logger back as it was, for callers that run `main` in-process."""
    library = logging.getLogger("quorvex")
    level = library.level
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(logging.Formatter("quorvex: %(levelname)s: %(message)s"))
    library.addHandler(handler)
    library.setLevel(logging.INFO if verbose else logging.WARNING)

    def restore() -> None:
        library.removeHandler(handler)
        library.setLevel(level)

    return restore


def _report(prog: str, error: CliError) -> None:
    from rich.console import Console
    from rich.markup import escape

    err = Console(stderr=True, highlight=False, soft_wrap=True)
    err.print(f"[bold red]{prog}: error:[/] {escape(error.message)}")
    if error.hint:
        err.print(f"  {escape(error.hint)}")


def main(argv: Optional[List[str]] = None) -> int:
    parser = build_parser()
    try:
        args = parser.parse_args(argv)
    except SystemExit as exit_request:  # argparse has printed its usage message
        code = exit_request.code
        return code if isinstance(code, int) else EXIT_BAD_ARGUMENTS
    run: Optional[Callable[..., int]] = getattr(args, "run", None)
    if run is None:
        parser.print_help(sys.stderr)
        return EXIT_BAD_ARGUMENTS

    from quorvex.cli.console import make_console

    restore_logging = _configure_logging(args.verbose)
    console = make_console(no_color=args.no_color)
    prog = "quorvex " + args.command
    try:
        return run(args, console)
    except CliError as error:
        _report(prog, error)
        return error.status
    except KeyboardInterrupt:
        _report(prog, CliError("interrupted", EXIT_INTERRUPTED))
        return EXIT_INTERRUPTED
    except (ConnectionError, TimeoutError) as error:
        # The session dropped, or a reply never came: either way the broker is out of reach.
        _report(prog, CliError(f"lost the broker: {error}", EXIT_UNREACHABLE))
        return EXIT_UNREACHABLE
    except Exception as error:
        if args.verbose:
            from rich.console import Console

            Console(stderr=True).print_exception()
        hint = None if args.verbose else "run with --verbose to see where it happened"
        _report(prog, CliError(f"{type(error).__name__}: {error}", EXIT_FAILED, hint=hint))
        return EXIT_FAILED
    finally:
        restore_logging()


if __name__ == "__main__":
    sys.exit(main())
