"""One logged-in session with a broker, as the commands use it.

``BrokerSession`` drives ``SolaceAPI`` the way a client library's front object does and turns
each failure into a ``CliError`` with the matching exit status: a broker that cannot be
reached (5), a refused login (4), bad input (2).
"""

import contextlib
import datetime
import logging
import os
import time
import urllib.parse
from typing import Any, Callable, Dict, List, Optional, Tuple

from typing_extensions import Self

from quorvex.cli.errors import (
    EXIT_BAD_ARGUMENTS,
    EXIT_LOGIN_REFUSED,
    EXIT_UNREACHABLE,
    CliError,
)
from quorvex.constant import FetchStatus

__all__ = [
    "BUS_VPN",
    "PAPER_BUS",
    "SECRET_KEY_ENV",
    "BrokerSession",
    "Credentials",
    "credentials_for",
    "default_host",
    "market_day",
    "demo_credentials",
    "probe_broker",
    "replay_config",
]

_log = logging.getLogger("quorvex.cli")

# The embedded paper broker: an in-process bus with the broker attached on first connect.
PAPER_BUS = "demo"
# The paper market follows the clock, so it is closed at night and at weekends; the commands
# replay a trading morning instead, this many times faster than real time.
MARKET_SPEED = 10
MARKET_OPEN = "09:00"
_TAIPEI = datetime.timezone(datetime.timedelta(hours=8))
SECRET_KEY_ENV = "QUORVEX_SECRET_KEY"
BUS_PASSWORD_ENV = "QUORVEX_BUS_PASSWORD"
BUS_USER_ENV = "QUORVEX_BUS_USER"
BUS_VPN = "quorvex"
BUS_USER = "quorvex-cli"
# How far the broker's clock may be from ours when it checks the signed login document.
RECEIVE_WINDOW_MS = 30000
CONNECT_TIMEOUT_MS = 3000
CONTRACTS_TIMEOUT_S = 60.0


def market_day(now: Optional[datetime.datetime] = None) -> datetime.date:
    """The trading day the commands replay: today in Taipei, or the Friday before a weekend."""
    day = (now or datetime.datetime.now(_TAIPEI)).astimezone(_TAIPEI).date()
    while day.weekday() >= 5:
        day -= datetime.timedelta(days=1)
    return day


def replay_config(now: Optional[datetime.datetime] = None) -> Any:
    """The demo broker's configuration replaying the same morning as `default_host`: what
    `quorvex broker` serves to other processes."""
    config = _paper_module().PaperBrokerConfig.demo()
    config.market_start = "{}T{}".format(market_day(now).isoformat(), MARKET_OPEN)
    config.clock_speed = float(MARKET_SPEED)
    return config


def default_host(now: Optional[datetime.datetime] = None) -> str:
    """The embedded paper broker, its market opening at 09:00 of `market_day` and running
    MARKET_SPEED times faster than the clock, so quotes flow whenever the command runs."""
    return "paper://{}?market_start={}T{}&clock_speed={}".format(
        PAPER_BUS, market_day(now).isoformat(), MARKET_OPEN, MARKET_SPEED
    )


class Credentials:
    """An API key and its Base58 secret key; the secret never shows in a repr."""

    __slots__ = ("_secret_key", "api_key", "person_id")

    def __init__(self, api_key: str, secret_key: str, person_id: str = "") -> None:
        self.api_key = api_key
        self._secret_key = secret_key
        self.person_id = person_id

    @property
    def secret_key(self) -> str:
        return self._secret_key

    def __repr__(self) -> str:
        return f"Credentials(api_key={self.api_key!r}, secret_key=<hidden>, person_id={self.person_id!r})"


def _paper_module() -> Any:
    # Importing it is also what registers the paper:// scheme with the bus.
    try:
        import quorvex.paper
    except ImportError as error:
        raise CliError(
            f"the embedded paper broker is not part of this build ({error}); run ./scripts/bootstrap",
            EXIT_UNREACHABLE,
        ) from None
    return quorvex.paper


def demo_credentials() -> Credentials:
    """The paper broker's documented demo person and API key."""
    demo = _paper_module().DEMO
    return Credentials(demo.api_key, demo.api_secret, demo.person_id)


def credentials_for(
    host: str, api_key: Optional[str], environ: Optional[Dict[str, str]] = None
) -> Credentials:
    """The key given on the command line with its secret from the environment, else the
    paper broker's demo key (on paper:// and on a network bus a `quorvex broker` serves, which
    refuses the login when it is some other broker)."""
    env = os.environ if environ is None else environ
    if api_key:
        secret = env.get(SECRET_KEY_ENV, "")
        if not secret:
            raise CliError(
                f"--api-key needs its secret key; expected it in the environment variable {SECRET_KEY_ENV} "
                "(never on the command line, where other users can read it)",
                EXIT_BAD_ARGUMENTS,
            )
        return Credentials(api_key, secret)
    if not host.startswith("paper://"):
        _log.info("no --api-key for %s: logging in with the paper broker's demo key", host)
    return demo_credentials()


def _bus_settings(host: str) -> Dict[str, Any]:
    return {
        "host": host,
        "vpn": BUS_VPN,
        "user": os.environ.get(BUS_USER_ENV, BUS_USER),
        "password": os.environ.get(BUS_PASSWORD_ENV, ""),
    }


def _unreachable(host: str, error: BaseException) -> CliError:
    reason = str(error) or type(error).__name__
    return CliError(
        f"cannot reach the broker at {host}: {reason}",
        EXIT_UNREACHABLE,
        hint="expected paper:// (the embedded paper broker) or the address of a running broker",
    )


def probe_broker(host: str) -> None:
    """Connect once and disconnect, so that an unreachable broker is told apart from a
    refused login. For paper:// this also starts the embedded broker."""
    try:
        from pymqlink import SolClient
    except ImportError as error:
        raise CliError(
            f"the messaging binding is not built ({error}); run ./scripts/bootstrap", EXIT_UNREACHABLE
        ) from None
    if host.startswith("paper://"):
        _paper_module()
    client = SolClient()
    try:
        client.connect(
            clientname="quorvex-cli/probe", connect_timeout_ms=CONNECT_TIMEOUT_MS, **_bus_settings(host)
        )
    except Exception as error:  # the binding's own error types name the host and the reason
        raise _unreachable(host, error) from None
    # The probe has done its work; a failed goodbye changes nothing.
    with contextlib.suppress(Exception):
        client.disconnect()


def _log_event(resp_code: Any, event_code: Any, info: Any, event: Any) -> None:
    level = logging.INFO if not resp_code else logging.WARNING
    _log.log(
        level, "session event %s: %s (response code %s, event code %s)", event, info, resp_code, event_code
    )


def _no_reply(error: BaseException) -> bool:
    # A blocking request answers None when no reply came in time; the login then reads a
    # status from None.
    return isinstance(error, AttributeError) and "NoneType" in str(error)


class BrokerSession:
    """SolaceAPI on one host, logged in with an API key, with its contract master."""

    def __init__(self, host: str) -> None:
        self.host = host
        self.person_id = ""
        self.accounts: List[Any] = []
        self._logged_in = False
        try:
            from quorvex.backend.solace.api import SolaceAPI
        except ImportError as error:
            raise CliError(
                f"the trading backend is not built ({error}); run ./scripts/bootstrap", EXIT_UNREACHABLE
            ) from None
        settings = _bus_settings(host)
        try:
            self.api = SolaceAPI(
                settings["host"],
                settings["vpn"],
                settings["user"],
                settings["password"],
                False,
                connect_timeout_ms=CONNECT_TIMEOUT_MS,
            )
        except ImportError as error:
            raise CliError(str(error), EXIT_UNREACHABLE) from None
        # Session events would otherwise be printed into the middle of the output.
        self.api.set_event_callback(_log_event)

    # ------------------------------------------------------------------ session

    def login(self, credentials: Credentials) -> List[Any]:
        """token_login with the signed API key; returns the person's accounts."""
        from quorvex.error import ServiceError
        from quorvex.error import TimeoutError as ReplyTimeout

        try:
            accounts, _contract_download, person_id = self.api.token_login(
                credentials.api_key, credentials.secret_key, True, RECEIVE_WINDOW_MS
            )
        except ServiceError as error:
            # The refusal's own detail: a TokenError's text speaks of sessions already open.
            raise CliError(
                "the broker refused the login (status {}): {}".format(
                    error.status_code, error.detail or "no reason given"
                ),
                EXIT_LOGIN_REFUSED,
                hint="expected an API key the broker knows and its matching secret key",
            ) from None
        except (ReplyTimeout, ConnectionError) as error:
            raise _unreachable(self.host, error) from None
        except (ValueError, TypeError) as error:
            raise CliError(f"cannot log in: {error}", EXIT_BAD_ARGUMENTS) from None
        except AttributeError as error:
            if _no_reply(error):
                raise _unreachable(self.host, RuntimeError("no reply to the login in time")) from None
            raise
        self._logged_in = True
        self.person_id = person_id or credentials.person_id
        self.accounts = list(accounts)
        return self.accounts

    def logout(self) -> None:
        if self._logged_in:
            self._logged_in = False
            self.api.logout()

    def close(self) -> None:
        """Log out if logged in; a failure here must not hide the run's own result."""
        with contextlib.suppress(Exception):
            self.logout()

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    @property
    def stock_account(self) -> Any:
        return self.api.default_stock_account

    @property
    def futopt_account(self) -> Any:
        return self.api.default_futopt_account

    # ------------------------------------------------------------------ contracts

    @property
    def contracts(self) -> Any:
        return self.api.Contracts

    def contract_progress(self) -> Tuple[int, int, int]:
        """(pages received, pages announced, contracts held) of the download under way."""
        received = announced = 0
        for collection in self.contracts:
            pages = getattr(collection, "_page_list", None) or []
            announced += len(pages)
            received += sum(1 for page in pages if page)
        return received, announced, len(self.contracts)

    def download_contracts(
        self,
        on_progress: Optional[Callable[[int, int, int], None]] = None,
        timeout: float = CONTRACTS_TIMEOUT_S,
    ) -> bool:
        """Fetch the contract master unless it is already held; returns whether it was
        downloaded (False: it came from the cache of this trading day)."""
        from quorvex.error import ServiceError

        contracts = self.contracts
        if contracts.status == FetchStatus.Fetched:
            return False
        try:
            self.api.fetch_all_contract(timeout=0, cb=lambda security_type: None)
        except ServiceError as error:
            raise CliError(f"the broker refused the contract download: {error}") from None
        deadline = time.monotonic() + timeout
        while contracts.status != FetchStatus.Fetched:
            if on_progress is not None:
                on_progress(*self.contract_progress())
            if time.monotonic() > deadline:
                received, announced, held = self.contract_progress()
                raise CliError(
                    f"the contract master did not arrive within {timeout:.0f} s: "
                    f"{received} of {announced} pages, {held} contracts"
                )
            time.sleep(0.02)
        if on_progress is not None:
            on_progress(*self.contract_progress())
        return True


def market_options(host: str) -> Dict[str, str]:
    """The market options after "?" in a paper:// address, e.g. {"market_start": ..., "clock_speed": ...}."""
    if not host.startswith("paper://") or "?" not in host:
        return {}
    return dict(urllib.parse.parse_qsl(host.split("?", 1)[1]))


def trading_day(host: str) -> str:
    """The trading day a session on `host` trades in: the replayed one (a `quorvex broker`
    replays `market_day`)."""
    start = market_options(host).get("market_start", "")
    return start[:10] if start else market_day().isoformat()
