"""Filled-in records whose round trip through dict() has something to lose: records held in
fields typed by their base class, nested lists of records, extra fields, enumerations,
positional construction and the summary's own validator."""

import datetime

from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.constant import Action, FetchStatus, OptionRight, Status
from quorvex.contracts import ComboBase, ComboContract, Future, Option, Stock
from quorvex.data import AccountBalance, CASign, Kbars, Margin, Snapshot, Ticks, TraceLog
from quorvex.order import ComboStatus, ComboTrade, Deal, Order, OrderStatus, Trade
from quorvex.position import (
    FutureProfitLossSummary,
    ProfitLossSummaryTotal,
    ProfitLossTotal,
    StockPosition,
    StockProfitLossSummary,
)
from quorvex.reserve import (
    ErrorResponse,
    ReserveOrder,
    ReserveOrderResp,
    ReserveStockDetail,
    ReserveStockResponse,
    ReserveStocksDetail,
)

STOCK_ACCOUNT = StockAccount(person_id="A123456789", broker_id="9A95", account_id="0001234", signed=True)
FUTURE_ACCOUNT = FutureAccount(person_id="A123456789", broker_id="F002000", account_id="1234567")
TSMC = Stock(
    exchange="TSE",
    code="2330",
    symbol="TSE2330",
    name="TSMC",
    category="24",
    unit=1000,
    limit_up=1100.0,
    limit_down=900.0,
    reference=1000.0,
    day_trade="Yes",
)
TXF = Future(
    exchange="TAIFEX",
    code="TXFL6",
    symbol="TXF202612",
    category="TXF",
    delivery_month="202612",
    underlying_kind="I",
    multiplier=200,
)
TXO = Option(
    exchange="TAIFEX",
    code="TXO18000L6",
    symbol="TXO20261218000C",
    category="TXO",
    strike_price=18000,
    option_right=OptionRight.Call,
)
WHEN = datetime.datetime(2024, 1, 2, 9, 0, 1)
ORDER = Order(
    action=Action.Buy,
    price=1000,
    quantity=2,
    account=STOCK_ACCOUNT,
    ca="signature",
    id="ab12",
    seqno="000123",
    ordno="X0001",
    custom_field="note",
)
STATUS = OrderStatus(
    id="ab12",
    status=Status.PartFilled,
    order_datetime=WHEN,
    order_quantity=2,
    deal_quantity=1,
    deals=[Deal(seq="1", price=1000, quantity=1, ts=1704157201.5)],
    order_ts=1704157201,
)
COMBO = ComboContract(legs=[ComboBase(action="Buy", **TXO.dict()), ComboBase(action="Sell", **TXO.dict())])

RECORDS = [
    Account(account_type="H", broker_id="H001", account_id="77"),
    STOCK_ACCOUNT,
    FUTURE_ACCOUNT,
    TXO,
    COMBO,
    ORDER,
    STATUS,
    ComboStatus(id="c1", status=Status.Submitted, deals=[Deal(code="TXO18000L6", quantity=1)]),
    Trade(contract=TSMC, order=ORDER, status=STATUS),
    Trade(
        contract=TXF,
        order=Order(
            action="Sell", price=0, quantity=1, price_type="MKT", octype="New", account=FUTURE_ACCOUNT
        ),
        status=OrderStatus(),
    ),
    ComboTrade(contract=COMBO, order=Order(action="Buy", price=10, quantity=1), status=ComboStatus()),
    AccountBalance(acc_balance=1e6, date="2024-01-02 09:00:00", status=FetchStatus.Fetched),
    Margin(equity=3.5, available_margin=2, status=FetchStatus.Fetching),
    StockPosition(id=0, code="2330", direction="Buy", quantity=3, cond="MarginTrading"),
    ProfitLossSummaryTotal(
        profitloss_summary=[
            StockProfitLossSummary(code="2330", quantity=1, pnl=10),
            FutureProfitLossSummary(code="TXFL6", direction="Sell", pnl=-3),
        ],
        total=ProfitLossTotal(pnl=7),
        status=FetchStatus.Fetched,
    ),
    Ticks(ts=[1, 2], close=[1.0, 2.0], volume=[1, 1], tick_type=[1, 2]),
    Kbars(ts=[1], Open=[1.0], High=[2.0], Low=[0.5], Close=[1.5], Volume=[10], Amount=[15.0]),
    Snapshot(ts=1, code="2330", exchange="TSE", close=1000, tick_type="Buy", change_type="LimitUp"),
    TraceLog(
        person_id="A123456789",
        account=STOCK_ACCOUNT,
        ip="10.0.0.1",
        action="place_order",
        func="place_order",
        func_content={"code": "2330", "price": 1.0},
        result="F",
    ),
    ReserveOrder(share=1000, ca=CASign(signature="sig", plain_text="text")),
    ReserveStockResponse(
        response=ReserveOrderResp(contract=TSMC, account=STOCK_ACCOUNT),
        error=ErrorResponse(status_code=400, detail="no"),
    ),
    ReserveStocksDetail(
        stocks=[ReserveStockDetail(contract=TSMC, order_datetime=WHEN)], account=STOCK_ACCOUNT
    ),
]
