"""``quorvex.Client``: the front object people use, over the backend session ``SolaceAPI``."""

import contextlib
import datetime
import logging
import math
import os
import re
import secrets
import sys
import tempfile
import threading
import time
import urllib.parse
from typing import Any, Callable, Dict, Iterator, List, Optional, Sequence, Tuple, TypeVar, Union

from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.client._backend import ReplyWaiter, backend_class
from quorvex.client._logs import quiet_by_default
from quorvex.client.book import TradeBook
from quorvex.client.events import TAIPEI, DealEvent, OrderEvent, SessionEvent
from quorvex.constant import (
    Action,
    FetchStatus,
    OrderState,
    OrderType,
    PriceType,
    QuoteType,
    QuoteVersion,
    ScannerType,
    SecurityType,
    Status,
    TicksQueryType,
    Unit,
)
from quorvex.contracts import BaseContract, Contract, Contracts
from quorvex.data import (
    AccountBalance,
    ChangePercentRank,
    CreditEnquire,
    DailyQuotes,
    Kbars,
    Margin,
    SettlementV1,
    ShortStockSource,
    Snapshot,
    Ticks,
)
from quorvex.error import (
    CertificateError,
    ConnectionLost,
    ContractNotFound,
    LoginRefused,
    NotInSimulation,
    OrderRefused,
    QuorvexError,
    RequestTimeout,
    ServiceError,
)
from quorvex.frames import RecordList
from quorvex.order import Order, Trade
from quorvex.position import ProfitLossSummaryTotal

__all__ = ["Client"]

_log = logging.getLogger("quorvex")
_H = TypeVar("_H", bound=Callable[..., Any])
DateLike = Union[str, datetime.date]

# How far the broker's clock may be from ours when it checks a signed API-key login.
_RECEIVE_WINDOW_MS = 30000
# A contract download slower than this shows a progress bar on a terminal.
_PROGRESS_AFTER_S = 0.5
_DOWN_EVENT = "down"
_TIMEOUT_TEXT = "'NoneType' object has no attribute 'get'"
_BUS_NAME = re.compile(r"^[A-Za-z0-9_.-]+$")
_MARKET_START = re.compile(r"^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}(:\d{2})?$")
_CLOCK = re.compile(r"^\d{1,2}:\d{2}(:\d{2})?$")


def _positive_int(name: str, value: Any, unit: str) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or value <= 0:
        raise ValueError("{} must be a whole number above 0 ({}), got {!r}".format(name, unit, value))
    return value


def _price(name: str, value: Any) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not math.isfinite(value):
        raise ValueError("{} must be a finite number (NTD or index points), got {!r}".format(name, value))
    return float(value)


def _text(name: str, value: Any, what: str) -> str:
    if not isinstance(value, str) or not value:
        raise ValueError("{} must be a non-empty str ({}), got {}".format(name, what, type(value).__name__))
    return value


def _date(name: str, value: Optional[DateLike], default: datetime.date) -> str:
    if value is None:
        return default.isoformat()
    if isinstance(value, datetime.date):
        return value.isoformat()[:10]
    if isinstance(value, str):
        with contextlib.suppress(ValueError):
            return datetime.date.fromisoformat(value).isoformat()
    raise ValueError("{} must be a date or a 'YYYY-MM-DD' text, got {!r}".format(name, value))


def market_day(now: Optional[datetime.datetime] = None) -> datetime.date:
    """Today in Taipei, or the Friday before at weekends: the day a paper replay trades."""
    day = (now or datetime.datetime.now(TAIPEI)).astimezone(TAIPEI).date()
    while day.weekday() >= 5:
        day -= datetime.timedelta(days=1)
    return day


def _market_start(value: Union[str, datetime.datetime]) -> str:
    if isinstance(value, datetime.datetime):
        return value.astimezone(TAIPEI).strftime("%Y-%m-%dT%H:%M:%S") if value.tzinfo else value.isoformat()
    if isinstance(value, str) and _CLOCK.match(value):
        return "{}T{}".format(market_day().isoformat(), value.rjust(5, "0"))
    if isinstance(value, str) and _MARKET_START.match(value):
        return value
    raise ValueError(
        "market_start must be a Taipei time 'HH:MM' (of the last trading day), "
        "'YYYY-MM-DDTHH:MM' or a datetime, got {!r}".format(value)
    )


class _Reply(ReplyWaiter):
    """Waits on the caller's thread for a non-blocking reply."""

    def __init__(self) -> None:
        self._done = threading.Event()
        self._result: Any = None
        self._error: Optional[BaseException] = None

    def __call__(self, result: Any) -> None:
        self._result = result
        self._done.set()

    def fail(self, error: BaseException) -> None:
        self._error = error
        self._done.set()

    def wait(self, what: str, timeout_ms: int) -> Any:
        if not self._done.wait(timeout_ms / 1000.0):
            raise RequestTimeout("no reply to {} within {} ms".format(what, timeout_ms))
        if self._error is not None:
            raise self._error
        return self._result


class _Ignore(ReplyWaiter):
    """For requests whose result arrives by other ways (a refresh after a reconnection)."""

    def __call__(self, result: Any) -> None:
        pass

    def fail(self, error: BaseException) -> None:
        _log.warning("quorvex: a background refresh failed: %s", error)


class Client:
    """A session with a broker for people: log in, trade, watch reports, query, stream quotes.

    ``Client.paper()`` reaches the embedded paper broker, ``Client("mqtt://HOST:PORT")`` a
    broker over MQTT. Logging in also loads the contract master. Calls block until the reply
    (``timeout_ms``, 5000 by default) and raise a ``quorvex.error.QuorvexError`` when something
    went wrong; handlers registered with ``on_order``, ``on_deal``, ``on_tick``, ... run on the
    messaging thread, and an error they raise is logged and never stops delivery. The trades
    returned stay current: every reply and report about an order updates its one ``Trade``.
    Nothing is printed; logs go to the standard ``logging`` logger "quorvex"
    (``quorvex.enable_logging()`` shows them). Used as a context manager it logs out on exit.
    """

    def __init__(
        self,
        host: str,
        *,
        simulation: bool = False,
        timeout_ms: int = 5000,
        vpn: str = "",
        bus_user: str = "",
        bus_password: str = "",
        connect_timeout_ms: int = 3000,
        reconnect_retries: int = 10,
        reconnect_retry_wait_ms: int = 3000,
        keep_alive_ms: int = 3000,
        keep_alive_limit: int = 3,
        progress: Optional[bool] = None,
    ) -> None:
        """A client of the broker at ``host`` ("paper://NAME", "mqtt://HOST:PORT", ...).

        ``simulation`` selects the paper-trading services; ``timeout_ms`` is how long a call
        waits for its reply. ``vpn``, ``bus_user`` and ``bus_password`` are the message bus's
        own settings (on MQTT: topic prefix, user name and password), as are the connection
        and reconnection settings. ``progress`` shows a progress bar while a slow contract
        download runs (default: when standard error is a terminal).
        """
        if not isinstance(host, str) or "://" not in host:
            raise ValueError(
                "host must be a broker address such as 'paper://' or 'mqtt://HOST:PORT', got {!r}".format(
                    host
                )
            )
        for name, value in (("vpn", vpn), ("bus_user", bus_user), ("bus_password", bus_password)):
            if not isinstance(value, str):
                raise ValueError("{} must be a str, got {}".format(name, type(value).__name__))
        self._timeout_ms = _positive_int("timeout_ms", timeout_ms, "milliseconds to wait for a reply")
        if host.startswith("paper://"):
            import quorvex.paper  # noqa: F401  (registers the paper:// scheme)
        quiet_by_default()
        self.host = host
        self._progress = progress
        self._api: Any = backend_class()(
            host,
            vpn,
            bus_user,
            bus_password,
            bool(simulation),
            connect_timeout_ms=_positive_int("connect_timeout_ms", connect_timeout_ms, "milliseconds"),
            reconnect_retries=reconnect_retries,
            keep_alive_ms=_positive_int("keep_alive_ms", keep_alive_ms, "milliseconds"),
            reconnect_retry_wait=_positive_int(
                "reconnect_retry_wait_ms", reconnect_retry_wait_ms, "milliseconds"
            ),
            keep_alive_limit=_positive_int("keep_alive_limit", keep_alive_limit, "missed keep-alives"),
        )
        self._book = self._api.book = TradeBook(lambda: self._api._trades)
        self._handlers: Dict[str, List[Callable[..., Any]]] = {
            kind: [] for kind in ("order", "deal", "event", "tick", "bidask", "quote")
        }
        self._person_id = ""
        self._logged_in = False
        self._down: Optional[str] = None
        self._deferring = threading.local()
        self._install_handlers()

    @classmethod
    def paper(
        cls,
        name: str = "paper",
        *,
        market_start: Union[str, datetime.datetime, None] = None,
        clock_speed: Optional[float] = None,
        **settings: Any,
    ) -> "Client":
        """A client of the embedded paper broker of in-process bus ``name`` (nothing to start).

        The paper market follows Taipei trading hours; ``market_start`` replays from another
        moment ("09:00": the last trading day's opening) and ``clock_speed`` runs its clock
        faster. Sessions of one process on one ``name`` share one market, whose settings are
        those of the first session. Other keywords are those of ``Client()``.
        """
        if not isinstance(name, str) or not _BUS_NAME.match(name):
            raise ValueError(
                "name must be a bus name of letters, digits, '_', '.' or '-', got {!r}".format(name)
            )
        options = {}
        if market_start is not None:
            options["market_start"] = _market_start(market_start)
        if clock_speed is not None:
            options["clock_speed"] = format(_price("clock_speed", clock_speed), "g")
            if float(options["clock_speed"]) <= 0:
                raise ValueError(
                    "clock_speed must be above 0 (times the speed of the clock), got {!r}".format(clock_speed)
                )
        query = "?" + urllib.parse.urlencode(options, safe=":") if options else ""
        return cls("paper://{}{}".format(name, query), **settings)

    # ------------------------------------------------------------------ handlers

    def _install_handlers(self) -> None:
        api = self._api
        api.set_event_callback(self._on_session_event)
        api.set_session_down_callback(self._on_session_down)
        api.set_order_callback(self._on_report)
        api.set_quote_callback(lambda topic, msg: None)  # untyped (v0) messages are not used
        for kind, setters in (
            ("tick", ("set_on_tick_stk_v1_callback", "set_on_tick_fop_v1_callback")),
            ("bidask", ("set_on_bidask_stk_v1_callback", "set_on_bidask_fop_v1_callback")),
            ("quote", ("set_on_quote_stk_v1_callback",)),
        ):
            handlers = self._handlers[kind]
            for setter in setters:
                getattr(api, setter)(
                    lambda exchange, record, _h=handlers: self._deliver(_h, exchange, record)
                )

    def _deliver(self, handlers: List[Callable[..., Any]], *args: Any) -> None:
        for handler in list(handlers):
            try:
                handler(*args)
            except Exception:
                _log.exception("quorvex: handler %r raised; delivery goes on", handler)

    def _on_report(self, state: OrderState, report: Dict[str, Any]) -> None:
        try:
            trade = self._book.apply_report(state, report)
            deal = state in (OrderState.Deal, OrderState.FDeal, OrderState.TFTDeal)
            event: Union[OrderEvent, DealEvent] = (DealEvent if deal else OrderEvent).from_report(
                state, report, trade
            )
        except Exception:
            _log.exception("quorvex: an order report could not be read: %r", report)
            return
        self._deliver(self._handlers["deal" if deal else "order"], event)

    def _on_session_event(self, resp_code: Any, event_code: Any, info: Any, event: Any) -> None:
        session_event = SessionEvent(str(event), int(event_code or 0), str(info), int(resp_code or 0))
        level = logging.WARNING if session_event.response_code else logging.INFO
        _log.log(level, "quorvex: session %s: %s", session_event.name, session_event.info)
        if session_event.down:
            self._down = session_event.info or "the session is down"
        elif session_event.name == "reconnected" and self._logged_in:
            # Reports may have been missed while the link was down: refresh in the background.
            for account in (self.stock_account, self.futures_account):
                if account is not None:
                    self._api.update_status(account, timeout=0, cb=_Ignore())
        self._deliver(self._handlers["event"], session_event)

    def _on_session_down(self) -> None:
        self._down = self._down or "the session is down"

    def on_order(self, handler: _H) -> _H:
        """Decorator: ``handler(event: OrderEvent)`` for every order report (messaging thread)."""
        self._handlers["order"].append(handler)
        return handler

    def on_deal(self, handler: _H) -> _H:
        """Decorator: ``handler(event: DealEvent)`` for every fill (messaging thread)."""
        self._handlers["deal"].append(handler)
        return handler

    def on_event(self, handler: _H) -> _H:
        """Decorator: ``handler(event: SessionEvent)`` when the link to the broker changes."""
        self._handlers["event"].append(handler)
        return handler

    def on_tick(self, handler: _H) -> _H:
        """Decorator: ``handler(exchange, tick)`` for each trade of a subscribed contract:
        ``TickSTKv1`` for stocks, ``TickFOPv1`` for futures and options (messaging thread)."""
        self._handlers["tick"].append(handler)
        return handler

    def on_bidask(self, handler: _H) -> _H:
        """Decorator: ``handler(exchange, bidask)`` with the five best levels of each side:
        ``BidAskSTKv1`` or ``BidAskFOPv1`` (messaging thread)."""
        self._handlers["bidask"].append(handler)
        return handler

    def on_quote(self, handler: _H) -> _H:
        """Decorator: ``handler(exchange, quote)`` with the joined stock quote ``QuoteSTKv1``."""
        self._handlers["quote"].append(handler)
        return handler

    def remove_handler(self, handler: Callable[..., Any]) -> None:
        """Stop calling ``handler`` (registered with any of the ``on_...`` decorators)."""
        for handlers in self._handlers.values():
            while handler in handlers:
                handlers.remove(handler)

    # ------------------------------------------------------------------ calling the backend

    @contextlib.contextmanager
    def _calling(self, what: str, needs_login: bool = True) -> Iterator[None]:
        if needs_login and not self._logged_in:
            raise QuorvexError("{}: not logged in; call login() or login_api_key() first".format(what))
        if needs_login and self._down is not None:
            raise ConnectionLost(
                "{}: the session to {} is down ({}); log in again".format(what, self.host, self._down)
            )
        try:
            yield
        except QuorvexError:
            raise
        except AttributeError as error:
            if _TIMEOUT_TEXT not in str(error):
                raise
            raise RequestTimeout(
                "no reply to {} from {} within {} ms".format(what, self.host, self._timeout_ms)
            ) from None
        except ConnectionError as error:
            raise ConnectionLost("{}: {}".format(what, error)) from None
        except Exception as error:
            text = str(error)
            if type(error) is Exception and ("activate ca" in text or "Activate Ca" in text):
                raise CertificateError(
                    "{}: no order-signing certificate is active for {}; call activate_certificate() "
                    "(on the paper broker: use_demo_certificate()) first".format(
                        what, self._person_id or "you"
                    )
                ) from None
            raise

    def _simulation_refuses(self, what: str) -> None:
        if self._api._simulation:
            raise NotInSimulation(
                "{} is not offered to simulation sessions; log in without simulation".format(what)
            )

    # ------------------------------------------------------------------ session

    def login(
        self, person_id: str, password: str, *, subscribe_trade: bool = True, contracts: bool = True
    ) -> List[Account]:
        """Log in with a person id and password; returns the person's accounts.

        Also loads the contract master unless ``contracts`` is False. Raises ``LoginRefused``
        when the broker refuses the credentials, ``RequestTimeout`` or ``ConnectionLost``
        when it cannot be reached.
        """
        _text("person_id", person_id, "the person's identifier")
        _text("password", password, "the person's password")
        with self._login_errors("login"):
            accounts, download, _web_token = self._api.login(
                person_id, password, False, bool(subscribe_trade)
            )
        return self._logged_in_as(person_id, accounts, download and contracts, contracts)

    def login_api_key(
        self,
        api_key: str,
        secret_key: str,
        *,
        subscribe_trade: bool = True,
        receive_window_ms: int = _RECEIVE_WINDOW_MS,
        contracts: bool = True,
    ) -> List[Account]:
        """Log in with an API key and its secret key (Base58 text); returns the accounts.

        The login request is signed with the secret key, which is never sent. Also loads the
        contract master unless ``contracts`` is False. Errors as for ``login``.
        """
        _text("api_key", api_key, "the API key")
        _text("secret_key", secret_key, "the Base58 text of the API key's secret")
        _positive_int("receive_window_ms", receive_window_ms, "milliseconds the login request stays valid")
        with self._login_errors("login_api_key"):
            try:
                accounts, download, person_id = self._api.token_login(
                    api_key, secret_key, bool(subscribe_trade), receive_window_ms
                )
            except (ValueError, TypeError) as error:
                if "secret" not in str(error).lower() and "seed" not in str(error).lower():
                    raise
                self._api.session.disconnect()
                raise ValueError(
                    "secret_key is not usable; expected the Base58 text of a 32-byte Ed25519 seed"
                ) from None
            except Exception as error:
                if type(error).__module__.startswith("nacl"):
                    self._api.session.disconnect()
                    raise ValueError(
                        "secret_key is not usable; expected the Base58 text of a 32-byte Ed25519 seed"
                    ) from None
                raise
        return self._logged_in_as(person_id, accounts, download and contracts, contracts)

    def login_token(self, token: str, person_id: str, *, contracts: bool = True) -> List[Account]:
        """Enter a simulation session with a session token already held; returns the accounts."""
        _text("token", token, "a session token")
        _text("person_id", person_id, "the person's identifier")
        with self._login_errors("login_token"):
            accounts, download = self._api.simulation_login(token, person_id, True)
        return self._logged_in_as(person_id, accounts, download and contracts, contracts)

    @contextlib.contextmanager
    def _login_errors(self, what: str) -> Iterator[None]:
        self._down = None
        try:
            with self._calling(what, needs_login=False):
                yield
        except ServiceError as error:
            if isinstance(error, LoginRefused):
                raise
            raise LoginRefused(error.status_code, error.detail) from None

    def _logged_in_as(
        self, person_id: str, accounts: List[Account], download: bool, wanted: bool
    ) -> List[Account]:
        self._person_id = person_id
        self._logged_in = True
        if (download or wanted) and not self._contracts_current():
            self.download_contracts()
        return list(accounts)

    def _contracts_current(self) -> bool:
        # The contracts file of this broker and trading day answers the download the login asks
        # for; one from another broker or day does not.
        from quorvex.backend.solace.utils import trading_day

        contracts = self._api.Contracts
        return (
            contracts.status == FetchStatus.Fetched
            and getattr(contracts, "host", None) == self.host
            and getattr(contracts, "trading_day", None) == trading_day()
        )

    def download_contracts(self, timeout_s: float = 60.0) -> Contracts:
        """Download the contract master now (logins do it); returns it when complete."""
        api = self._api
        with self._calling("download_contracts"):
            api.contract_error = None
            if api.Contracts.status == FetchStatus.Fetching:
                api.Contracts.status = FetchStatus.Unfetch  # a download that never finished
            api.Contracts.host = self.host  # kept in the contracts file with the trading day
            api.fetch_all_contract(0, lambda security_type: None)
            self._await_contracts(timeout_s)
        return api.Contracts

    def _await_contracts(self, timeout_s: float) -> None:
        api = self._api
        started = time.monotonic()
        bar = None
        try:
            while api.Contracts.status != FetchStatus.Fetched:
                if api.contract_error is not None:
                    raise api.contract_error
                waited = time.monotonic() - started
                if waited > timeout_s:
                    received, announced = self._pages()
                    raise RequestTimeout(
                        "the contract master did not arrive within {:g} s ({} of {} pages)".format(
                            timeout_s, received, announced
                        )
                    )
                if bar is None and waited > _PROGRESS_AFTER_S and self._show_progress():
                    bar = _ProgressBar()
                if bar is not None:
                    bar.update(*self._pages(), len(api.Contracts))
                time.sleep(0.01)
        finally:
            if bar is not None:
                bar.close()

    def _show_progress(self) -> bool:
        if self._progress is not None:
            return self._progress
        return bool(getattr(sys.stderr, "isatty", lambda: False)())

    def _pages(self) -> Tuple[int, int]:
        pages = [p for collection in self._api.Contracts for p in collection._page_list]
        return sum(1 for p in pages if p), len(pages)

    def logout(self) -> None:
        """End the session; the trades and contract master stay readable."""
        if self._logged_in:
            self._logged_in = False
            with self._calling("logout", needs_login=False):
                self._api.logout()

    def close(self) -> None:
        """Log out if logged in; never raises (for ``finally`` blocks and ``with``)."""
        try:
            self.logout()
        except Exception as error:
            _log.warning("quorvex: logout failed: %s", error)

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "logged in as {}".format(self._person_id) if self._logged_in else "not logged in"
        return "Client({!r}, {})".format(self.host.split("?")[0], state)

    # ------------------------------------------------------------------ what the login gave

    @property
    def api(self) -> Any:
        """The backend session (``SolaceAPI``), for services this object does not wrap."""
        return self._api

    @property
    def person_id(self) -> str:
        """The person logged in (empty before a login)."""
        return self._person_id

    @property
    def simulation(self) -> bool:
        """Whether this client uses the paper-trading (simulation) services."""
        return bool(self._api._simulation)

    @property
    def accounts(self) -> List[Account]:
        """The accounts the last login listed."""
        return list(self._api.accounts)

    @property
    def stock_account(self) -> Optional[StockAccount]:
        """The first stock account the login listed; None when there is none."""
        return self._api.default_stock_account  # type: ignore[no-any-return]

    @property
    def futures_account(self) -> Optional[FutureAccount]:
        """The first futures and options account the login listed; None when there is none."""
        return self._api.default_futopt_account  # type: ignore[no-any-return]

    @property
    def contracts(self) -> Contracts:
        """The contract master: ``contracts.Stocks["2330"]``, ``contracts.near_month("TXF")``."""
        return self._api.Contracts  # type: ignore[no-any-return]

    def contract(self, code: Union[str, BaseContract]) -> Contract:
        """The contract of a code or symbol ("2330", "TXFL6"); a futures product ("TXF") means
        its near month. Raises ``ContractNotFound`` for an unknown code."""
        if isinstance(code, BaseContract):
            return code  # type: ignore[return-value]
        if not isinstance(code, str) or not code:
            raise ValueError("contract must be a contract record or its code as text, got {!r}".format(code))
        master = self.contracts
        if master.status != FetchStatus.Fetched and not len(master):
            raise ContractNotFound(code, "the contract master is not loaded; log in first")
        for kind in (SecurityType.Stock, SecurityType.Future, SecurityType.Option, SecurityType.Index):
            found = master.of(kind).get(code) or master.of(kind).get(code.upper())
            if found is not None:
                return found  # type: ignore[no-any-return]
        near = master.near_month(code)
        if near is None:
            raise ContractNotFound(code)
        return near

    def _account_for(self, contract: BaseContract, account: Optional[Account], what: str) -> Account:
        if account is not None:
            if not isinstance(account, Account):
                raise ValueError(
                    "account must be an Account of this login, got {}".format(type(account).__name__)
                )
            return account
        stock = contract.security_type in (SecurityType.Stock, SecurityType.Index)
        default = self.stock_account if stock else self.futures_account
        if default is None:
            raise ValueError(
                "account: the login listed no {} account for {}; pass account=".format(
                    "stock" if stock else "futures", what
                )
            )
        return default

    # ------------------------------------------------------------------ certificates

    def activate_certificate(
        self, path: Union[str, "os.PathLike[str]"], password: str, person_id: Optional[str] = None
    ) -> None:
        """Activate the order-signing certificate (a PKCS#12 file) of ``person_id`` (default:
        the logged-in person). Raises ``CertificateError`` when it does not open."""
        person = person_id or self._person_id
        _text("password", password, "the certificate's password")
        if not os.path.isfile(os.fspath(path)):
            raise ValueError("path must name a certificate file (PKCS#12), got {!r}".format(os.fspath(path)))
        with self._calling("activate_certificate"):
            activated = self._api.activate_ca(os.fspath(path), password, person)
        if not activated:
            from quorvex.TWCA.ca import PyTWCASign

            reason = PyTWCASign(os.fspath(path), password, person, None).activation_error
            raise CertificateError("the certificate {} did not activate: {}".format(os.fspath(path), reason))

    def use_demo_certificate(self) -> None:
        """Paper trading only: issue a certificate from the demo authority and activate it."""
        from quorvex.TWCA.ca import issue_demo_certificate

        with self._calling("use_demo_certificate"):
            pass
        password = secrets.token_urlsafe(18)  # lives only in this process
        # The signer holds the key once activated, so the file is gone before this returns.
        with tempfile.TemporaryDirectory(prefix="quorvex-certificate-") as folder:
            path = issue_demo_certificate(os.path.join(folder, "demo.pfx"), password, self._person_id)
            self.activate_certificate(path, password)

    # ------------------------------------------------------------------ orders

    def buy(self, contract: Union[str, BaseContract], price: float, quantity: int, **terms: Any) -> Trade:
        """Place a buy order; ``terms`` are further ``Order`` fields (``price_type``,
        ``order_type``, ``order_lot``, ``octype``, ``account``, ...). See ``place_order``."""
        return self._place_terms(Action.Buy, contract, price, quantity, terms)

    def sell(self, contract: Union[str, BaseContract], price: float, quantity: int, **terms: Any) -> Trade:
        """Place a sell order; see ``buy``."""
        return self._place_terms(Action.Sell, contract, price, quantity, terms)

    def _place_terms(
        self,
        action: Action,
        contract: Union[str, BaseContract],
        price: float,
        quantity: int,
        terms: Dict[str, Any],
    ) -> Trade:
        record = self.contract(contract)
        market = terms.get("price_type") in (PriceType.MKT, PriceType.MKP, "MKT", "MKP")
        fields = dict(
            action=action,
            price=0.0 if market and price is None else _price("price", price),
            quantity=_positive_int("quantity", quantity, "board lots, shares for odd lots, contracts"),
            price_type=PriceType.LMT,
            order_type=OrderType.ROD,
        )
        fields.update(terms)
        try:
            order = Order(**fields)
        except ValueError as error:
            raise ValueError("order terms: {}".format(str(error).replace("\n", " "))) from None
        return self.place_order(record, order)

    def place_order(self, contract: Union[str, BaseContract], order: Order) -> Trade:
        """Place ``order`` on ``contract``; returns its ``Trade``, kept current from then on.

        An order without an account goes to the default account of its kind (stock, or
        futures and options). Raises ``OrderRefused`` (``sts_code``, and ``trade`` marked
        ``Failed`` with the reason in ``trade.status.msg``) when the broker refuses it,
        ``CertificateError`` without an active certificate, ``RequestTimeout`` when no reply
        came (the order may still have reached the broker: ``update_status`` shows it).
        """
        record = self.contract(contract)
        if record.target_code:  # a continuous contract trades as the month it names
            record = self.contract(record.target_code)
        if not isinstance(order, Order):
            raise ValueError("order must be an Order, got {}".format(type(order).__name__))
        if order.account is None:
            order = order.model_copy(update={"account": self._account_for(record, None, "this order")})
        return self._query("place_order", record, order, wrap=self._accepted)  # type: ignore[no-any-return]

    def _accepted(self, trade: Trade) -> Trade:
        if trade.status.status is Status.Failed:
            status = trade.status
            raise OrderRefused(self._book.refusal_status(trade), status.msg, status.status_code, trade)
        return trade

    def cancel_order(self, trade: Trade) -> Trade:
        """Cancel what is left of the order; returns ``trade``, now showing the cancel.

        Raises ``OrderRefused`` when there is nothing left to cancel (sts_code "74006") or
        the broker refuses; the trade keeps its true status.
        """
        self._check_trade(trade)
        return self._query("cancel_order", trade, wrap=lambda _: trade)  # type: ignore[no-any-return]

    def update_order(
        self, trade: Trade, price: Optional[float] = None, quantity: Optional[int] = None
    ) -> Trade:
        """Change the limit price and/or take ``quantity`` units off the order; returns ``trade``.

        A price equal to the current one sends nothing. Raises ``OrderRefused`` when the
        broker refuses the change.
        """
        self._check_trade(trade)
        if price is None and quantity is None:
            raise ValueError("update_order needs price (the new limit price) or quantity (units to take off)")
        if price is not None and _price("price", price) <= 0:
            raise ValueError("price must be above 0 (the new limit price), got {!r}".format(price))
        if quantity is not None:
            left = trade.order.quantity - trade.status.cancel_quantity
            _positive_int("quantity", quantity, "units to take off the order")
            if quantity > left:
                raise ValueError(
                    "quantity must not exceed what is left of the order ({}), got {}".format(left, quantity)
                )
        return self._query("update_order", trade, price, quantity, wrap=lambda _: trade)  # type: ignore[no-any-return]

    def _check_trade(self, trade: Any) -> None:
        if not isinstance(trade, Trade):
            raise ValueError(
                "trade must be a Trade returned by place_order, got {}".format(type(trade).__name__)
            )
        if not trade.order.id:
            raise ValueError("trade has no order id: the broker never accepted this order")

    def update_status(self, account: Optional[Account] = None) -> List[Trade]:
        """Ask the broker for the state of every order of ``account`` (default: both default
        accounts) and merge it into the trades; returns ``trades``."""
        for each in self._status_accounts(account):
            self._query("update_status", each, "")
        return self.trades

    def _status_accounts(self, account: Optional[Account]) -> List[Account]:
        if account is not None:
            return [account]
        return [a for a in (self.stock_account, self.futures_account) if a is not None]

    @property
    def trades(self) -> List[Trade]:
        """Every trade of this session, each order once, in the order first seen."""
        return self._book.unique(self._api.trades)

    # ------------------------------------------------------------------ quotes

    def subscribe(
        self,
        contract: Union[str, BaseContract],
        quote_type: Union[QuoteType, str] = QuoteType.Tick,
        *,
        odd_lot: bool = False,
    ) -> Contract:
        """Stream ``quote_type`` ("tick", "bidask" or "quote") of ``contract`` to the
        ``on_tick``/``on_bidask``/``on_quote`` handlers; ``odd_lot`` for intraday odd lots.
        Returns the contract subscribed."""
        return self._subscription("subscribe", contract, quote_type, odd_lot)

    def unsubscribe(
        self,
        contract: Union[str, BaseContract],
        quote_type: Union[QuoteType, str] = QuoteType.Tick,
        *,
        odd_lot: bool = False,
    ) -> Contract:
        """Stop streaming what ``subscribe`` started."""
        return self._subscription("unsubscribe", contract, quote_type, odd_lot)

    def _subscription(
        self, what: str, contract: Union[str, BaseContract], quote_type: Any, odd_lot: bool
    ) -> Contract:
        record = self.contract(contract)
        try:
            kind = QuoteType(quote_type)
        except ValueError:
            raise ValueError(
                "quote_type must be one of {}, got {!r}".format(
                    ", ".join(repr(q.value) for q in QuoteType), quote_type
                )
            ) from None
        with self._calling(what):
            getattr(self._api, what)(record, kind, bool(odd_lot), QuoteVersion.v1)
        return record

    # ------------------------------------------------------------------ money and positions

    def _query(self, what: str, *args: Any, wrap: Optional[Callable[[Any], Any]] = None) -> Any:
        """Call the backend's ``what(*args, timeout)``; the result goes through ``wrap``.

        With a deferring front (``quorvex.aio``) on this thread, the checked request is handed
        to it instead, to be sent non-blocking.
        """
        defer = getattr(self._deferring, "to", None)
        if defer is not None:
            with self._calling(what):
                pass
            return defer(what, args, wrap)
        with self._calling(what):
            result = getattr(self._api, what)(*args, self._timeout_ms)
        return wrap(result) if wrap is not None else result

    def _stock(self, account: Optional[Account]) -> Account:
        return account or self._need(self.stock_account, "stock")

    def _futures(self, account: Optional[Account]) -> Account:
        return account or self._need(self.futures_account, "futures")

    def _need(self, account: Optional[Account], kind: str) -> Account:
        if not self._logged_in:
            raise QuorvexError("not logged in; call login() or login_api_key() first")
        if account is None:
            raise ValueError("account: the login listed no {} account; pass account=".format(kind))
        return account

    def account_balance(self, account: Optional[StockAccount] = None) -> AccountBalance:
        """The settled cash of a stock account (default: the first)."""
        self._simulation_refuses("account_balance")
        return self._query("account_balance", self._stock(account))  # type: ignore[no-any-return]

    def margin(self, account: Optional[FutureAccount] = None) -> Margin:
        """The margin sheet of a futures and options account (default: the first)."""
        self._simulation_refuses("margin")
        return self._query("margin", self._futures(account))  # type: ignore[no-any-return]

    def settlements(self, account: Optional[StockAccount] = None) -> "RecordList[SettlementV1]":
        """Amounts due today and on the next two business days, one row each."""
        self._simulation_refuses("settlements")
        return self._query("settlements", self._stock(account), wrap=RecordList)

    def positions(
        self, account: Optional[Account] = None, unit: Union[Unit, str] = Unit.Common
    ) -> RecordList[Any]:
        """Open positions of ``account`` (default: the stock account); stock quantities in
        board lots, or shares with ``unit="Share"``."""
        return self._query("list_positions", self._stock(account), Unit(unit), wrap=RecordList)

    def profit_loss(
        self,
        account: Optional[Account] = None,
        begin: Optional[DateLike] = None,
        end: Optional[DateLike] = None,
    ) -> RecordList[Any]:
        """Realised profit and loss from ``begin`` to ``end`` (default: today), one row per close."""
        today = datetime.datetime.now(TAIPEI).date()
        begin_text, end_text = _date("begin", begin, today), _date("end", end, today)
        return self._query("list_profit_loss", self._stock(account), begin_text, end_text, wrap=RecordList)

    def profit_loss_summary(
        self,
        account: Optional[Account] = None,
        begin: Optional[DateLike] = None,
        end: Optional[DateLike] = None,
    ) -> ProfitLossSummaryTotal:
        """Realised profit and loss per contract from ``begin`` to ``end``, with a total."""
        self._simulation_refuses("list_profit_loss_summary")
        today = datetime.datetime.now(TAIPEI).date()
        args = (self._stock(account), _date("begin", begin, today), _date("end", end, today))
        # The backend's blocking form of this query cannot complete; wait for the reply here.
        reply = _Reply()
        with self._calling("profit_loss_summary"):
            self._api.list_profit_loss_summary(*args, 0, reply)
            return reply.wait("profit_loss_summary", self._timeout_ms)  # type: ignore[no-any-return]

    # ------------------------------------------------------------------ market data

    def ticks(
        self,
        contract: Union[str, BaseContract],
        date: Optional[DateLike] = None,
        *,
        start: Optional[str] = None,
        end: Optional[str] = None,
        last: Optional[int] = None,
    ) -> Ticks:
        """The trades of ``contract`` on ``date`` (default: today): all, those from ``start``
        to ``end`` ("HH:MM:SS", Taipei), or the ``last`` N. ``.df()`` gives a DataFrame."""
        record = self.contract(contract)
        day = _date("date", date, datetime.datetime.now(TAIPEI).date())
        if last is not None:
            query = (TicksQueryType.LastCount, None, None, _positive_int("last", last, "how many ticks"))
        elif start is not None or end is not None:
            if not isinstance(start, str) or not isinstance(end, str):
                raise ValueError(
                    "start and end must both be given as 'HH:MM:SS' texts, got {!r} and {!r}".format(
                        start, end
                    )
                )
            query = (TicksQueryType.RangeTime, start, end, 0)
        else:
            query = (TicksQueryType.AllDay, None, None, 0)
        return self._query("ticks", record, day, *query)  # type: ignore[no-any-return]

    def kbars(
        self,
        contract: Union[str, BaseContract],
        start: Optional[DateLike] = None,
        end: Optional[DateLike] = None,
    ) -> Kbars:
        """One-minute bars of ``contract`` from ``start`` to ``end`` (default: today)."""
        record = self.contract(contract)
        today = datetime.datetime.now(TAIPEI).date()
        return self._query("kbars", record, _date("start", start, today), _date("end", end, today))  # type: ignore[no-any-return]

    def daily_quotes(self, date: Optional[DateLike] = None, *, exclude_etfs: bool = False) -> DailyQuotes:
        """The day's open, high, low, close and volume of every stock that traded on ``date``."""
        day = datetime.date.fromisoformat(_date("date", date, market_day()))
        return self._query("daily_quotes", day, bool(exclude_etfs))  # type: ignore[no-any-return]

    def snapshots(self, contracts: Sequence[Union[str, BaseContract]]) -> "RecordList[Snapshot]":
        """The latest state of each contract, in the order given."""
        records = self._contracts_list(contracts)
        return self._query("snapshots", records, wrap=RecordList)

    def scanners(
        self,
        scanner_type: Union[ScannerType, str] = ScannerType.ChangePercentRank,
        *,
        ascending: bool = False,
        date: Optional[DateLike] = None,
        count: int = 100,
    ) -> "RecordList[ChangePercentRank]":
        """Stocks ranked by ``scanner_type`` on ``date`` (default: today), at most ``count`` (1-200)."""
        try:
            kind = ScannerType(scanner_type)
        except ValueError:
            raise ValueError(
                "scanner_type must be one of {}, got {!r}".format(
                    ", ".join(s.value for s in ScannerType), scanner_type
                )
            ) from None
        if isinstance(count, bool) or not isinstance(count, int) or not 1 <= count <= 200:
            raise ValueError("count must be a whole number from 1 to 200, got {!r}".format(count))
        day = None if date is None else _date("date", date, market_day())
        return self._query("scanners", kind, bool(ascending), day, count, wrap=RecordList)

    def credit_enquires(self, contracts: Sequence[Union[str, BaseContract]]) -> "RecordList[CreditEnquire]":
        """Margin-purchase and short-sale credit of each stock."""
        return self._query("credit_enquires", self._contracts_list(contracts), wrap=RecordList)

    def short_stock_sources(
        self, contracts: Sequence[Union[str, BaseContract]]
    ) -> "RecordList[ShortStockSource]":
        """Shares available to borrow for short sales of each stock."""
        self._simulation_refuses("short_stock_sources")
        return self._query("short_stock_sources", self._contracts_list(contracts), wrap=RecordList)

    def _contracts_list(self, contracts: Any) -> List[Contract]:
        if isinstance(contracts, (str, BaseContract)) or not isinstance(contracts, (list, tuple)):
            raise ValueError(
                "contracts must be a list of contracts or codes, got {}".format(type(contracts).__name__)
            )
        return [self.contract(c) for c in contracts]


class _ProgressBar:
    """The contract download's progress on a terminal (standard error, cleared when done)."""

    def __init__(self) -> None:
        from rich.console import Console
        from rich.progress import BarColumn, Progress, TaskProgressColumn, TextColumn

        self._progress = Progress(
            TextColumn("contract master"),
            BarColumn(),
            TaskProgressColumn(),
            TextColumn("{task.fields[contracts]:,} contracts"),
            console=Console(stderr=True),
            transient=True,
        )
        self._task = self._progress.add_task("contracts", total=None, contracts=0)
        self._progress.start()

    def update(self, received: int, announced: int, held: int) -> None:
        self._progress.update(self._task, completed=received, total=announced or None, contracts=held)

    def close(self) -> None:
        self._progress.stop()
