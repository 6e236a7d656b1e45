"""One filled-in example of every record class, shared by the record tests."""

import datetime

from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.backend.solace.utils import ScannerCountLimit
from quorvex.constant import Action, FetchStatus, OptionRight, Status
from quorvex.contracts import BaseContract, ComboBase, ComboContract, Contract, Future, Index, Option, Stock
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
from quorvex.order import ComboStatus, ComboTrade, Deal, Order, OrderStatus, Trade
from quorvex.position import (
    FuturePosition,
    FuturePositionDetail,
    FutureProfitDetail,
    FutureProfitLoss,
    FutureProfitLossSummary,
    PositionDetail,
    ProfitLossSummaryTotal,
    ProfitLossTotal,
    StockPosition,
    StockPositionDetail,
    StockProfitDetail,
    StockProfitLoss,
    StockProfitLossSummary,
)
from quorvex.reserve import (
    EarmarkingOrder,
    EarmarkingOrderResp,
    EarmarkStockDetail,
    EarmarkStocksDetail,
    EarmarkStocksDetailResponse,
    ErrorResponse,
    ReserveEarmarkingResponse,
    ReserveOrder,
    ReserveOrderResp,
    ReserveStockDetail,
    ReserveStockResponse,
    ReserveStocksDetail,
    ReserveStocksDetailResponse,
    ReserveStocksSummary,
    ReserveStocksSummaryResponse,
    ReserveStockSummary,
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
SUMMARY_ROWS = [
    StockProfitLossSummary(code="2330", quantity=1, pnl=10),
    FutureProfitLossSummary(code="TXFL6", direction="Sell", pnl=-3),
]

RECORDS = [
    Account(account_type="H", broker_id="H001", account_id="77"),
    STOCK_ACCOUNT,
    FUTURE_ACCOUNT,
    BaseContract(security_type="STK", exchange="OTC", code="6488"),
    Contract(security_type="IND", exchange="TSE", code="001"),
    Index(exchange="OTC", code="101", name="OTC index"),
    TSMC,
    TXF,
    TXO,
    COMBO.legs[0],
    COMBO,
    ORDER,
    Deal(seq="7", price=1.5, quantity=3, ts=1.0, code="TXO18000L6"),
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
    Settlement(t_money=-10, t1_money=5, t_day="2024-01-02"),
    SettlementV1(date="2024-01-02", amount=-100.0, T=1),
    StockPosition(id=0, code="2330", direction="Buy", quantity=3, cond="MarginTrading"),
    FuturePosition(id=1, code="TXFL6", direction="Sell", quantity=1, price=18000),
    PositionDetail(code="2330", direction="Buy"),
    StockPositionDetail(date="2024-01-02", code="2330", direction="Buy", quantity=1000, dseq="A1"),
    FuturePositionDetail(code="TXFL6", direction="Sell", entry_quantity=1),
    StockProfitLoss(id=3, code="2330", seqno="1", dseq="2", price=99.5, date="20240102"),
    FutureProfitLoss(id=4, code="TXFL6", direction="Buy", entry_price=1, cover_price=2),
    StockProfitDetail(code="2330", trade_type="DayTrade", cost=1),
    FutureProfitDetail(code="TXFL6", direction="Buy", pnl=3),
    SUMMARY_ROWS[0],
    SUMMARY_ROWS[1],
    ProfitLossTotal(quantity=1, pnl=7),
    ProfitLossSummaryTotal(
        profitloss_summary=SUMMARY_ROWS, total=ProfitLossTotal(pnl=7), status=FetchStatus.Fetched
    ),
    Ticks(ts=[1, 2], close=[1.0, 2.0], volume=[1, 1], tick_type=[1, 2]),
    Kbars(ts=[1], Open=[1.0], High=[2.0], Low=[0.5], Close=[1.5], Volume=[10], Amount=[15.0]),
    DailyQuotes(Date=["2024-01-02"], Code=["2330"], Open=[1.0], Transaction=[3]),
    Snapshot(ts=1, code="2330", exchange="TSE", close=1000, tick_type="Buy", change_type="LimitUp"),
    ChangePercentRank(code="2330", rank_value=9.9, change_type="Down"),
    CreditEnquire(stock_id="2330", system="HE", margin_unit=10),
    ShortStockSource(code="2330", short_stock_source=500, ts=1),
    CASign(signature="sig", plain_text="text"),
    TraceLog(
        person_id="A123456789",
        account=STOCK_ACCOUNT,
        ip="10.0.0.1",
        action="place_order",
        func="place_order",
        func_content={"code": "2330", "price": 1.0},
        result="F",
    ),
    ScannerCountLimit(count=200),
    ErrorResponse(status_code=500, detail="refused"),
    ReserveOrder(share=1000, ca=CASign(signature="sig", plain_text="text")),
    EarmarkingOrder(share=1000, price=99.5, ca=CASign(signature="sig", plain_text="text")),
    ReserveOrderResp(contract=TSMC, account=STOCK_ACCOUNT, share=1000, status=True, info="ok"),
    EarmarkingOrderResp(contract=TSMC, account=STOCK_ACCOUNT, share=1000, price=99.5),
    ReserveStockResponse(
        response=ReserveOrderResp(contract=TSMC, account=STOCK_ACCOUNT),
        error=ErrorResponse(status_code=400, detail="no"),
    ),
    ReserveEarmarkingResponse(response=EarmarkingOrderResp(contract=TSMC, account=STOCK_ACCOUNT)),
    ReserveStockSummary(contract=TSMC, available_share=10, reserved_share=2),
    ReserveStocksSummary(stocks=[ReserveStockSummary(contract=TSMC)], account=STOCK_ACCOUNT),
    ReserveStocksSummaryResponse(response=ReserveStocksSummary(account=STOCK_ACCOUNT)),
    ReserveStockDetail(contract=TSMC, share=1, order_datetime=WHEN, status=True),
    ReserveStocksDetail(stocks=[ReserveStockDetail(contract=TSMC)], account=STOCK_ACCOUNT),
    ReserveStocksDetailResponse(response=ReserveStocksDetail(account=STOCK_ACCOUNT)),
    EarmarkStockDetail(contract=TSMC, share=1, price=2, amount=2),
    EarmarkStocksDetail(stocks=[EarmarkStockDetail(contract=TSMC)], account=STOCK_ACCOUNT),
    EarmarkStocksDetailResponse(response=EarmarkStocksDetail(account=STOCK_ACCOUNT)),
]
