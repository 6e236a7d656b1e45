"""`quorvex demo`: the whole system end to end on the embedded paper broker.

Each step says what it does and what came back. Nothing else needs to be started: the paper
broker attaches itself to an in-process bus when the first session connects to paper://.
"""

import os
import secrets
import tempfile
import time
from typing import Any, Callable, List, Optional

from rich.markup import escape
from rich.progress import BarColumn, Progress, TaskProgressColumn, TextColumn, TimeElapsedColumn

from quorvex.cli.board import OrderReport, QuoteBoard, ReportLog, price_text
from quorvex.cli.connection import BrokerSession, demo_credentials, market_options, probe_broker, trading_day
from quorvex.cli.console import Narrator
from quorvex.cli.errors import CliError
from quorvex.cli.lookup import resolve
from quorvex.cli.streaming import stream_quotes
from quorvex.cli.tables import (
    accounts_table,
    balance_table,
    positions_table,
    profit_loss_table,
    trades_table,
)
from quorvex.constant import Action, FuturesOCType, OrderType, PriceType, SecurityType, Status, Unit

__all__ = ["DEMO_FUTURE", "DEMO_STOCK", "download_with_progress", "run_demo"]

DEMO_STOCK = "2330"
DEMO_FUTURE = "TXF"  # the product; the demo trades its near month
STEPS = 11
# How long the demo waits for the deal report of an order it placed.
DEAL_WAIT_S = 5.0
CERTIFICATE_DAYS = 30
_CONTRACTS_DIR_ENV = "QUORVEX_CONTRACTS_DIR"
_PLURAL = {
    SecurityType.Index: "indexes",
    SecurityType.Stock: "stocks",
    SecurityType.Future: "futures",
    SecurityType.Option: "options",
}


def download_with_progress(session: BrokerSession, narrator: Narrator) -> None:
    """The contract download with a progress bar on a terminal, a summary line in any case."""
    started = time.monotonic()
    if narrator.live:
        columns = (
            TextColumn("      "),
            BarColumn(),
            TaskProgressColumn(),
            TextColumn("{task.fields[pages]} pages, {task.fields[contracts]:,} contracts"),
            TimeElapsedColumn(),
        )
        with Progress(*columns, console=narrator.console, transient=True) as progress:
            task = progress.add_task("contracts", total=None, pages="0/?", contracts=0)

            def update(received: int, announced: int, held: int) -> None:
                progress.update(
                    task,
                    completed=received,
                    total=announced or None,
                    pages="{}/{}".format(received, announced or "?"),
                    contracts=held,
                )

            downloaded = session.download_contracts(update)
    else:
        downloaded = session.download_contracts()
    counts = ", ".join(f"{len(c):,} {_PLURAL.get(c.security_type, c.name)}" for c in session.contracts)
    if downloaded:
        _received, announced, held = session.contract_progress()
        narrator.say(
            f"{held:,} contracts in {announced} pages in {time.monotonic() - started:.2f} s: {counts}"
        )
    else:
        narrator.say(f"contract master of this trading day taken from the cache: {counts}")


class Demo:
    def __init__(self, host: str, seconds: float, narrator: Narrator, folder: str) -> None:
        self.host = host
        self.seconds = seconds
        self.narrator = narrator
        self.folder = folder
        self.session: Optional[BrokerSession] = None
        self.reports = ReportLog(self._print_report)
        self.board: Optional[QuoteBoard] = None
        self.stock: Any = None
        self.future: Any = None

    @property
    def api(self) -> Any:
        assert self.session is not None
        return self.session.api

    def _print_report(self, report: OrderReport) -> None:
        colour = "green" if report.is_deal else "yellow"
        self.narrator.say(f"[{colour}]<- {escape(report.summary())}[/]")

    # ------------------------------------------------------------------ steps

    def connect(self) -> None:
        embedded = self.host.startswith("paper://")
        where = "the embedded paper broker" if embedded else "the paper broker"
        with self.narrator.step("Connect to {} at {}".format(where, self.host.split("?")[0])):
            probe_broker(self.host)
            self.session = BrokerSession(self.host)
            if embedded:
                self.narrator.say(
                    "the broker runs inside this process on an in-process bus; nothing else to start"
                )
            else:
                self.narrator.say("the broker is another process, reached through that MQTT 5 broker")
            options = market_options(self.host)
            if "market_start" in options:
                start = options["market_start"].replace("T", " ")
                self.narrator.say(
                    "its market replays {} Taipei time at {} times the speed of the clock".format(
                        start, options.get("clock_speed", "1")
                    )
                )

    def login(self) -> None:
        credentials = demo_credentials()
        with self.narrator.step("Log in with the demo API key (token_login, an Ed25519-signed request)"):
            accounts = self.session.login(credentials)
            self.narrator.say(f"logged in as {escape(self.session.person_id)}; {len(accounts)} accounts")
            self.narrator.show(accounts_table(accounts))
            if self.session.stock_account is None or self.session.futopt_account is None:
                raise CliError(
                    "the demo person needs a stock account and a futures account; "
                    f"the broker gave {len(accounts)} accounts"
                )

    def contracts(self) -> None:
        with self.narrator.step("Download the contract master"):
            download_with_progress(self.session, self.narrator)
            self.stock, self.future = resolve(self.session.contracts, [DEMO_STOCK, DEMO_FUTURE])
            self.narrator.say(
                "trading {} {} and {} {} (near month, delivery {})".format(
                    self.stock.code,
                    escape(self.stock.name),
                    self.future.code,
                    escape(self.future.name),
                    self.future.delivery_date or "-",
                )
            )

    def certificate(self) -> None:
        from quorvex.TWCA.ca import PyTWCASign, issue_demo_certificate

        with self.narrator.step("Issue a demo certificate and activate it for signing orders (activate_ca)"):
            person = self.session.person_id
            password = secrets.token_urlsafe(18)  # lives only in this process, never shown
            path = issue_demo_certificate(
                os.path.join(self.folder, "demo-certificate.pfx"), password, person, days=CERTIFICATE_DAYS
            )
            if not self.api.activate_ca(path, password, person):
                reason = PyTWCASign(path, password, person, None).activation_error
                raise CliError(f"the demo certificate did not activate: {reason}")
            self.narrator.say(
                f"certificate for {escape(person)} from the demo authority, valid {CERTIFICATE_DAYS} days, "
                f"written to {escape(path)}"
            )

    def quotes(self) -> None:
        contracts = [self.stock, self.future]
        codes = " and ".join(c.code for c in contracts)
        with self.narrator.step(f"Stream ticks and bid/asks of {codes} for {self.seconds:g} s"):
            self.board = QuoteBoard(contracts)
            stream_quotes(
                self.api,
                self.board,
                contracts,
                self.seconds,
                self.narrator.console,
                title=f"Quotes of {codes}",
            )
            counts = self.board.counts()
            self.narrator.say("received {ticks} ticks and {bidasks} bid/asks".format(**counts))
            if self.board.errors:
                self.narrator.say(
                    "[red]{} quote records could not be read; first: {}[/]".format(
                        self.board.errors, escape(self.board.first_error or "")
                    )
                )

    def _order_price(self, contract: Any) -> float:
        """The best ask seen while streaming, so that a buy fills; else the reference price."""
        _bid, ask = self.board.best_bid_ask(contract.code) if self.board else (None, None)
        return float(ask) if ask else float(contract.reference)

    def _place(self, what: str, contract: Any, order: Any) -> Any:
        from quorvex.error import ServiceError

        try:
            trade = self.api.place_order(contract, order)
        except ServiceError as error:
            raise CliError(f"the broker refused the {what}: {error}") from None
        status = trade.status
        self.narrator.say(
            "placed: {} {} {} @ {} {} {} -> {}{}".format(
                order.action,
                order.quantity,
                contract.code,
                price_text(order.price),
                order.price_type,
                order.order_type,
                status.status,
                f" ({escape(status.msg)})" if status.msg else "",
            )
        )
        if status.status == Status.Failed:
            raise CliError(
                "the broker did not accept the {}: {}".format(what, status.msg or "no reason given")
            )
        return trade

    def _await_deal(self, contract: Any) -> None:
        def dealt(reports: List[OrderReport]) -> bool:
            return any(r.is_deal and r.field("code") == contract.code for r in reports)

        if not self.reports.wait_for(dealt, DEAL_WAIT_S):
            self.narrator.say(f"no deal within {DEAL_WAIT_S:g} s: the order rests in the book")

    def _buy_one(self, what: str, contract: Any, account: Any, **terms: Any) -> None:
        """A one-unit limit buy at the best ask seen, then its deal report awaited."""
        from quorvex.order import Order

        order = Order(
            action=Action.Buy,
            price=self._order_price(contract),
            quantity=1,
            price_type=PriceType.LMT,
            order_type=OrderType.ROD,
            account=account,
            **terms,
        )
        self._place(what, contract, order)
        self._await_deal(contract)

    def orders(self) -> None:
        self.api.set_order_callback(self.reports.on_order)
        with self.narrator.step(
            f"Place a stock limit order: buy 1 lot of {self.stock.code} at "
            f"{price_text(self._order_price(self.stock))} (reports arrive through set_order_callback)"
        ):
            self._buy_one("stock order", self.stock, self.session.stock_account)
        with self.narrator.step(
            f"Place a futures order: buy 1 {self.future.code} at {price_text(self._order_price(self.future))}"
        ):
            self._buy_one(
                "futures order", self.future, self.session.futopt_account, octype=FuturesOCType.Auto
            )

    def status(self) -> None:
        with self.narrator.step("Refresh the order status (update_status)"):
            for account in (self.session.stock_account, self.session.futopt_account):
                self.api.update_status(account)
            trades = list(self.api.trades)
            self.narrator.show(trades_table(trades))
            deals = sum(1 for r in self.reports.reports() if r.is_deal)
            self.narrator.say(
                f"{len(trades)} trades; {len(self.reports.reports())} order reports so far, "
                f"{deals} of them deals"
            )

    def positions(self) -> None:
        with self.narrator.step("Positions and profit and loss (list_positions, list_profit_loss)"):
            day = trading_day(self.host)
            for label, account in (
                ("Stock", self.session.stock_account),
                ("Futures", self.session.futopt_account),
            ):
                self.narrator.show(
                    positions_table(self.api.list_positions(account, Unit.Common), f"{label} positions")
                )
                realised = self.api.list_profit_loss(account, day, day)
                if realised:
                    self.narrator.show(profit_loss_table(realised, f"{label} profit and loss today"))
                else:
                    self.narrator.say(f"{label}: no realised profit or loss today")

    def money(self) -> None:
        with self.narrator.step("Balance and margin (account_balance, margin)"):
            balance = self.api.account_balance(self.session.stock_account)
            margin = self.api.margin(self.session.futopt_account)
            self.narrator.show(balance_table(balance, margin))

    def logout(self) -> None:
        with self.narrator.step("Log out"):
            self.session.logout()
            self.narrator.say("session closed")

    def run(self) -> None:
        started = time.monotonic()
        steps: List[Callable[[], None]] = [
            self.connect,
            self.login,
            self.contracts,
            self.certificate,
            self.quotes,
            self.orders,
            self.status,
            self.positions,
            self.money,
            self.logout,
        ]
        try:
            for step in steps:
                step()
        finally:
            if self.session is not None:
                self.session.close()
        counts = self.board.counts() if self.board else {"ticks": 0, "bidasks": 0}
        reports = self.reports.reports()
        self.narrator.console.print(
            "[bold green]Demo finished[/] in {:.1f} s: {} ticks, {} bid/asks, {} order reports, "
            "{} deals.".format(
                time.monotonic() - started,
                counts["ticks"],
                counts["bidasks"],
                len(reports),
                sum(1 for r in reports if r.is_deal),
            )
        )


def run_demo(host: str, seconds: float, narrator: Narrator) -> int:
    # The contract master goes to a folder of this run, so the download is shown every time
    # and the user's cache of another broker is left alone.
    previous = os.environ.get(_CONTRACTS_DIR_ENV)
    with tempfile.TemporaryDirectory(prefix="quorvex-demo-") as folder:
        os.environ[_CONTRACTS_DIR_ENV] = folder
        try:
            Demo(host, seconds, narrator, folder).run()
        finally:
            if previous is None:
                os.environ.pop(_CONTRACTS_DIR_ENV, None)
            else:
                os.environ[_CONTRACTS_DIR_ENV] = previous
    return 0
