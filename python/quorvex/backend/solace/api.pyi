"""The message-bus backend of the client library: SolaceAPI and its service methods.

Every query takes `timeout` in milliseconds (0: return a placeholder at once and complete it
when the reply arrives, then call `cb` with it on the messaging thread) and `cb` last.
"""

import datetime
import os
from typing import Any, Callable, Dict, List, Literal, Optional, Sequence, Tuple, TypeVar, Union, overload

from pymqlink import SolClient
from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.backend.solace.bidask import BidAskFOPv1, BidAskSTKv1
from quorvex.backend.solace.quote import QuoteSTKv1
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1
from quorvex.constant import (
    Exchange,
    OrderState,
    QuoteType,
    QuoteVersion,
    ScannerType,
    SecurityType,
    TicksQueryType,
    Unit,
)
from quorvex.contracts import BaseContract, ComboContract, Contract, Contracts
from quorvex.data import (
    AccountBalance,
    CASign,
    ChangePercentRank,
    CreditEnquire,
    DailyQuotes,
    Kbars,
    Margin,
    Settlement,
    SettlementV1,
    ShortStockSource,
    Snapshot,
    Ticks,
    TraceLog,
)
from quorvex.order import ComboTrade, Order, Trade
from quorvex.position import (
    FuturePosition,
    FuturePositionDetail,
    FutureProfitDetail,
    FutureProfitLoss,
    ProfitLossSummaryTotal,
    StockPosition,
    StockPositionDetail,
    StockProfitDetail,
    StockProfitLoss,
)
from quorvex.reserve import (
    EarmarkStocksDetailResponse,
    ReserveEarmarkingResponse,
    ReserveStockResponse,
    ReserveStocksDetailResponse,
    ReserveStocksSummaryResponse,
)
from quorvex.TWCA.ca import PyTWCASign

_F = TypeVar("_F", bound=Callable[..., Any])

# A reply of the services: {"status": {"status_code": int, ...}, "response": ...}.
_Reply = Dict[str, Any]
# A raw message or order report as the session delivers it.
_Message = Dict[str, Any]
_PathLike = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
_Position = Union[StockPosition, FuturePosition]
_PositionDetail = Union[StockPositionDetail, FuturePositionDetail]
_ProfitLoss = Union[StockProfitLoss, FutureProfitLoss]
_ProfitDetail = Union[StockProfitDetail, FutureProfitDetail]

class SolaceAPI:
    """One session to the broker's service bus and one method per service: logins, contract
    download, orders, account queries, reservations, market data and quote subscriptions."""

    # ---- state set by the constructor and the logins
    session: SolClient
    accounts: List[Account]
    default_stock_account: Optional[StockAccount]
    default_futopt_account: Optional[FutureAccount]
    Contracts: Contracts
    activated_ca: Dict[str, PyTWCASign]
    contract_all_fetched: int
    context: Any
    tft: bool
    hash_password: str
    api_ver: str
    category_auth: str
    category_order: str
    category_data: str
    category_portfolio: str
    category_paper: str
    __sol_setup__: Dict[str, Any]
    _simulation: bool
    _person_id: Optional[str]
    _public_ip: Optional[str]
    _prev_trace_log_ts: float
    _trades: Dict[str, Trade]
    _combotrades: Dict[str, ComboTrade]
    _positions: Dict[str, List[_Position]]
    _profit_loss: Dict[str, List[_ProfitLoss]]
    _reqrep: Dict[str, Any]
    _rep_callback_map: Dict[str, Any]

    # ---- service topics, "api/v1/<category>/<service>"
    login_topic: str
    simulation_login_topic: str
    error_tracking_topic: str
    logout_topic: str
    token_login_topic: str
    subscribe_trade_topic: str
    b64validation_topic: str
    trace_log_topic: str
    place_order_topic: str
    cancel_order_topic: str
    update_status_topic: str
    update_combostatus_topic: str
    place_comboorder_topic: str
    cancel_comboorder_topic: str
    list_positions_topic: str
    list_position_detail_topic: str
    list_profit_loss_topic: str
    list_profit_loss_detail_topic: str
    list_profit_loss_summary_topic: str
    list_settlement_topic: str
    settlements_topic: str
    margin_topic: str
    account_balance_topic: str
    update_price_topic: str
    update_qty_topic: str
    stock_reserve_summary_topic: str
    stock_reserve_detail_topic: str
    reserve_stock_topic: str
    earmarking_detail_topic: str
    reserve_earmarking_topic: str
    ticks_topic: str
    credit_enquire_topic: str
    kbars_topic: str
    snapshots_topic: str
    short_stock_source_topic: str
    data_contracts_topic: str
    scanner_topic: str
    daily_quotes_topic: str

    # ---- user handlers (replaceable; printing defaults)
    on_quote_callback: Callable[[str, _Message], Any]
    on_msg_callback: Callable[[str, _Message], Any]
    on_tick_stk_v1_callback: Callable[[Exchange, TickSTKv1], Any]
    on_tick_fop_v1_callback: Callable[[Exchange, TickFOPv1], Any]
    on_bidask_stk_v1_callback: Callable[[Exchange, BidAskSTKv1], Any]
    on_bidask_fop_v1_callback: Callable[[Exchange, BidAskFOPv1], Any]
    on_quote_stk_v1_callback: Callable[[Exchange, QuoteSTKv1], Any]
    on_order_callback: Callable[[OrderState, _Message], Any]
    on_session_down_callback: Callable[[], Any]
    on_event_callback: Callable[[int, int, str, str], Any]

    # ---- construction, context, end of life
    def __init__(
        self,
        host: str,
        vpn: str,
        user: str,
        password: str,
        simulation: bool,
        proxies: Dict[str, str] = ...,
        connect_timeout_ms: int = 3000,
        reconnect_retries: int = 10,
        keep_alive_ms: int = 3000,
        reconnect_retry_wait: int = 3000,
        keep_alive_limit: int = 3,
    ) -> None: ...
    def set_init_callback(self) -> None: ...
    def set_context(self, context: Any) -> None: ...
    def set_callback(self, func: Callable[[str, _Message], Any]) -> None: ...
    def __del__(self) -> None: ...

    # ---- session events, messages and order reports (called on the messaging thread)
    def on_msg_wrap(self, topic: str, msg: _Message) -> None: ...
    def on_event_wrap(self, resp_code: int, event_code: int, info: str, event: str) -> None: ...
    def on_session_down_wrap(self) -> None: ...
    def on_p2p_wrap(self, topic: str, state: _Message) -> None: ...
    def on_order_wrap(self, order_state: OrderState, state: _Message) -> None: ...
    def set_forder_ordno(self, msg: _Message) -> None: ...
    def set_msg_callback(self, func: Callable[[str, _Message], Any]) -> None: ...
    def set_event_callback(self, func: Callable[[int, int, str, str], Any]) -> None: ...
    def set_session_down_callback(self, func: Callable[[], Any]) -> None: ...
    def set_order_callback(self, func: Callable[[OrderState, _Message], Any]) -> None: ...
    def on_quote(self, func: _F) -> _F: ...
    def on_event(self, func: _F) -> _F: ...
    def on_order(self, func: _F) -> _F: ...

    # ---- logins, logout, trace log
    def login(
        self, person_id: str, password: str, hashed: bool = False, subscribe_trade: bool = True
    ) -> Tuple[List[Account], bool, str]:
        """Returns the accounts, whether to download the contract master, and the web token."""
    def list_accounts(self) -> List[Account]: ...
    def subscribe_trade(self, account: Account, subscribe_trade: bool) -> bool: ...
    def error_tracking(self, person_id: str) -> bool: ...
    def token_login(
        self, key: str, secret_key: str, subscribe_trade: bool, receive_window: int
    ) -> Tuple[List[Account], bool, str]:
        """Returns the accounts, whether to download the contract master, and the person id."""
    def simulation_login(
        self, token: str, person_id: str, subscribe_trade: bool = True
    ) -> Tuple[List[Account], bool]: ...
    def logout(self) -> bool: ...
    def trace_log(self, trade: Trade) -> None: ...
    def _trace_log(self, trace_log: TraceLog) -> bool: ...

    # ---- order-signing certificates
    def activate_ca(self, ca_path: _PathLike, ca_password: str, person_id: str, store: int = 0) -> bool: ...
    def prepare_ca(self, order: Order) -> Order: ...
    def prepare_casign(self, plain_text: str, account: Account) -> CASign: ...

    # ---- real-time quotes
    def subscribe(
        self,
        contract: BaseContract,
        quote_type: QuoteType = ...,
        intraday_odd: bool = False,
        version: QuoteVersion = ...,
    ) -> None: ...
    def unsubscribe(
        self,
        contract: BaseContract,
        quote_type: QuoteType = ...,
        intraday_odd: bool = False,
        version: QuoteVersion = ...,
    ) -> None: ...
    def on_quote_wrap(self, topic: str, quote: _Message) -> None: ...
    def set_quote_callback(self, func: Callable[[str, _Message], Any]) -> None: ...
    # With bind=True the handler is called with the context (set_context) first.
    @overload
    def set_on_tick_stk_v1_callback(
        self, func: Callable[[Exchange, TickSTKv1], Any], bind: Literal[False] = False
    ) -> None: ...
    @overload
    def set_on_tick_stk_v1_callback(
        self, func: Callable[[Any, Exchange, TickSTKv1], Any], bind: Literal[True]
    ) -> None: ...
    @overload
    def set_on_tick_fop_v1_callback(
        self, func: Callable[[Exchange, TickFOPv1], Any], bind: Literal[False] = False
    ) -> None: ...
    @overload
    def set_on_tick_fop_v1_callback(
        self, func: Callable[[Any, Exchange, TickFOPv1], Any], bind: Literal[True]
    ) -> None: ...
    @overload
    def set_on_bidask_stk_v1_callback(
        self, func: Callable[[Exchange, BidAskSTKv1], Any], bind: Literal[False] = False
    ) -> None: ...
    @overload
    def set_on_bidask_stk_v1_callback(
        self, func: Callable[[Any, Exchange, BidAskSTKv1], Any], bind: Literal[True]
    ) -> None: ...
    @overload
    def set_on_bidask_fop_v1_callback(
        self, func: Callable[[Exchange, BidAskFOPv1], Any], bind: Literal[False] = False
    ) -> None: ...
    @overload
    def set_on_bidask_fop_v1_callback(
        self, func: Callable[[Any, Exchange, BidAskFOPv1], Any], bind: Literal[True]
    ) -> None: ...
    @overload
    def set_on_quote_stk_v1_callback(
        self, func: Callable[[Exchange, QuoteSTKv1], Any], bind: Literal[False] = False
    ) -> None: ...
    @overload
    def set_on_quote_stk_v1_callback(
        self, func: Callable[[Any, Exchange, QuoteSTKv1], Any], bind: Literal[True]
    ) -> None: ...

    # ---- history, snapshots, scanners, credit and short-stock sources
    def ticks(
        self,
        contract: BaseContract,
        date: str = ...,
        query_type: TicksQueryType = ...,
        time_start: Optional[str] = None,
        time_end: Optional[str] = None,
        last_cnt: int = 0,
        timeout: int = 5000,
        cb: Optional[Callable[[Ticks], Any]] = None,
    ) -> Ticks:
        """`date` defaults to the day the module was loaded, as "%Y-%m-%d"."""
    def kbars(
        self,
        contract: BaseContract,
        start: str = ...,
        end: str = ...,
        timeout: int = 5000,
        cb: Optional[Callable[[Kbars], Any]] = None,
    ) -> Kbars:
        """`start` and `end` default to the day before and the day the module was loaded."""
    def daily_quotes(
        self,
        date: datetime.date,
        exclude: bool,
        timeout: int = 5000,
        cb: Optional[Callable[[DailyQuotes], Any]] = None,
    ) -> DailyQuotes: ...
    def snapshots(
        self,
        contracts: Sequence[BaseContract],
        timeout: int = 5000,
        cb: Optional[Callable[[List[Snapshot]], Any]] = None,
    ) -> List[Snapshot]: ...
    def scanners(
        self,
        scanner_type: ScannerType,
        ascending: bool,
        date: Optional[str] = None,
        count: int = 100,
        timeout: int = 5000,
        cb: Optional[Callable[[List[ChangePercentRank]], Any]] = None,
    ) -> List[ChangePercentRank]: ...
    def credit_enquires(
        self,
        contracts: Sequence[BaseContract],
        timeout: int = 5000,
        cb: Optional[Callable[[List[CreditEnquire]], Any]] = None,
    ) -> List[CreditEnquire]: ...
    def short_stock_sources(
        self,
        contracts: Sequence[BaseContract],
        timeout: int = 5000,
        cb: Optional[Callable[[List[ShortStockSource]], Any]] = None,
    ) -> List[ShortStockSource]: ...
    def _ticks_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _kbars_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _daily_quotes_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _snapshots_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _scanners_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _credit_enquires_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _short_stock_source_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...

    # ---- contract master download (non-blocking by default; `cb` gets each completed type)
    def fetch_all_contract(
        self, timeout: int = 0, cb: Optional[Callable[[SecurityType], Any]] = ...
    ) -> None: ...
    def fetch_contract_max_page(self) -> None: ...
    def fetch_contracts(
        self,
        security_type: SecurityType,
        page: int = -1,
        timeout: int = 0,
        page_size: int = 5000,
        cb: Optional[Callable[[SecurityType], Any]] = ...,
    ) -> None: ...
    def set_contract_cb(
        self, corrid: str, page: int, timeout: int, cb: Optional[Callable[[SecurityType], Any]]
    ) -> None: ...
    def _fetch_contracts_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def fetch_all_page(self, page_list: Sequence[int]) -> bool: ...

    # ---- orders and the trade book
    def place_order(
        self,
        contract: BaseContract,
        order: Order,
        timeout: int = 5000,
        cb: Optional[Callable[[Trade], Any]] = None,
    ) -> Trade: ...
    def cancel_order(
        self, trade: Trade, timeout: int = 5000, cb: Optional[Callable[[Trade], Any]] = None
    ) -> Trade: ...
    def update_order(
        self,
        trade: Trade,
        price: Optional[float] = None,
        quantity: Optional[int] = None,
        timeout: int = 5000,
        cb: Optional[Callable[[Trade], Any]] = None,
    ) -> Trade:
        """`price` is the new limit price; `quantity` the number of units to take off the order."""
    def update_status(
        self,
        account: Account,
        seqno: str = "",
        timeout: int = 5000,
        cb: Optional[Callable[[List[Trade]], Any]] = None,
    ) -> None: ...
    @property
    def trades(self) -> List[Trade]: ...
    def _place_order_cb(self, topic: str, corrid: str, resp: _Reply) -> str:
        """Returns the key of the trade in `_trades`: the order id, or the correlation id on refusal."""
    def _cancel_order_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _update_order_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _update_status_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...

    # ---- combination orders
    def place_comboorder(
        self,
        combocontract: ComboContract,
        order: Order,
        timeout: int = 5000,
        cb: Optional[Callable[[ComboTrade], Any]] = None,
    ) -> ComboTrade: ...
    def cancel_comboorder(
        self, combotrade: ComboTrade, timeout: int = 5000, cb: Optional[Callable[[ComboTrade], Any]] = None
    ) -> ComboTrade: ...
    def update_combostatus(
        self,
        account: Account,
        seqno: str = "",
        timeout: int = 5000,
        cb: Optional[Callable[[Dict[str, ComboTrade]], Any]] = None,
    ) -> None: ...
    @property
    def combotrades(self) -> List[ComboTrade]: ...
    def place_comboorder_cb(self, topic: str, corrid: str, resp: _Reply) -> str: ...
    def _cancel_comboorder_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _update_combostatus_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...

    # ---- balance, margin, settlements
    def account_balance(
        self, account: Account, timeout: int = 5000, cb: Optional[Callable[[AccountBalance], Any]] = None
    ) -> AccountBalance: ...
    def margin(
        self, account: Account, timeout: int = 5000, cb: Optional[Callable[[Margin], Any]] = None
    ) -> Margin: ...
    def settlements(
        self, account: Account, timeout: int = 5000, cb: Optional[Callable[[List[SettlementV1]], Any]] = None
    ) -> List[SettlementV1]: ...
    def list_settlements(
        self, account: Account, timeout: int = 5000, cb: Optional[Callable[[Settlement], Any]] = None
    ) -> Settlement: ...
    def _account_balance_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _margin_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _settlements_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _list_settlements_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...

    # ---- positions, profit and loss (cached per account; the details read the cache)
    def list_positions(
        self,
        account: Account,
        unit: Unit,
        timeout: int = 5000,
        cb: Optional[Callable[[List[_Position]], Any]] = None,
    ) -> List[_Position]: ...
    def list_position_detail(
        self,
        account: Account,
        detail_id: int,
        timeout: int = 5000,
        cb: Optional[Callable[[List[_PositionDetail]], Any]] = None,
    ) -> List[_PositionDetail]: ...
    def list_profit_loss(
        self,
        account: Account,
        begin_date: str,
        end_date: str,
        timeout: int = 5000,
        cb: Optional[Callable[[List[_ProfitLoss]], Any]] = None,
    ) -> List[_ProfitLoss]: ...
    def list_profit_loss_detail(
        self,
        account: Account,
        detail_id: int,
        timeout: int = 5000,
        cb: Optional[Callable[[List[_ProfitDetail]], Any]] = None,
    ) -> List[_ProfitDetail]: ...
    def list_profit_loss_summary(
        self,
        account: Account,
        begin_date: str,
        end_date: str,
        timeout: int = 5000,
        cb: Optional[Callable[[ProfitLossSummaryTotal], Any]] = None,
    ) -> ProfitLossSummaryTotal: ...
    def _list_positions_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _list_position_detail_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _list_profit_loss_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _list_profit_loss_detail_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _list_profit_loss_summary_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...

    # ---- stock reservation and earmarking (refusals are carried in the result's `error`)
    def reserve_stock(
        self,
        account: StockAccount,
        contract: Contract,
        share: int,
        timeout: int = 5000,
        cb: Optional[Callable[[ReserveStockResponse], Any]] = None,
    ) -> ReserveStockResponse: ...
    def reserve_earmarking(
        self,
        account: StockAccount,
        contract: Contract,
        share: int,
        price: float,
        timeout: int = 5000,
        cb: Optional[Callable[[ReserveEarmarkingResponse], Any]] = None,
    ) -> ReserveEarmarkingResponse: ...
    def stock_reserve_summary(
        self,
        account: StockAccount,
        timeout: int = 5000,
        cb: Optional[Callable[[ReserveStocksSummaryResponse], Any]] = None,
    ) -> ReserveStocksSummaryResponse: ...
    def stock_reserve_detail(
        self,
        account: StockAccount,
        timeout: int = 5000,
        cb: Optional[Callable[[ReserveStocksDetailResponse], Any]] = None,
    ) -> ReserveStocksDetailResponse: ...
    def earmarking_detail(
        self,
        account: StockAccount,
        timeout: int = 5000,
        cb: Optional[Callable[[EarmarkStocksDetailResponse], Any]] = None,
    ) -> EarmarkStocksDetailResponse: ...
    def _reserve_stock_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _reserve_earmarking_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _stock_reserve_summary_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _stock_reserve_detail_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
    def _earmarking_detail_cb(self, topic: str, corrid: str, resp: _Reply) -> None: ...
