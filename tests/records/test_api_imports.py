"""Every name the backend's api module takes from the client library must exist."""

import importlib

import pytest

IMPORTED = {
    "quorvex.account": ["Account", "AccountType", "FutureAccount", "StockAccount"],
    "quorvex.constant": [
        "Exchange",
        "OrderState",
        "QuoteType",
        "QuoteVersion",
        "SecurityType",
        "Unit",
        "ScannerType",
        "TicksQueryType",
        "FetchStatus",
        "Status",
        "AccountType",
    ],
    "quorvex.contracts": [
        "BaseContract",
        "ComboContract",
        "Contract",
        "Contracts",
        "FetchStatus",
        "Future",
        "Index",
        "Option",
        "Stock",
        "get_product_contracts",
        "SecurityType",
    ],
    "quorvex.data": [
        "TraceLog",
        "AccountBalance",
        "Margin",
        "Settlement",
        "SettlementV1",
        "Ticks",
        "Kbars",
        "DailyQuotes",
        "Snapshot",
        "ChangePercentRank",
        "CreditEnquire",
        "ShortStockSource",
        "CASign",
    ],
    "quorvex.order": [
        "Order",
        "Trade",
        "OrderStatus",
        "Status",
        "ComboTrade",
        "ComboStatus",
        "OrderState",
        "Deal",
    ],
    "quorvex.position": [
        "StockPosition",
        "FuturePosition",
        "StockPositionDetail",
        "FuturePositionDetail",
        "StockProfitLoss",
        "FutureProfitLoss",
        "StockProfitDetail",
        "FutureProfitDetail",
        "StockProfitLossSummary",
        "FutureProfitLossSummary",
        "ProfitLossTotal",
        "ProfitLossSummaryTotal",
    ],
    "quorvex.reserve": [
        "ReserveStockResponse",
        "ReserveOrderResp",
        "ReserveEarmarkingResponse",
        "EarmarkingOrderResp",
        "ReserveStocksSummaryResponse",
        "ReserveStocksSummary",
        "ReserveStockSummary",
        "ReserveStocksDetailResponse",
        "ReserveStocksDetail",
        "ReserveStockDetail",
        "EarmarkStocksDetailResponse",
        "EarmarkStocksDetail",
        "EarmarkStockDetail",
        "ErrorResponse",
        "ReserveOrder",
        "EarmarkingOrder",
    ],
    "quorvex.error": ["TokenError", "TimeoutError"],
    "quorvex.utils": ["log", "raise_resp_error"],
    "quorvex.common": ["BaseModel"],
    "quorvex._version": ["__version__"],
    "quorvex.backend.solace.utils": [
        "convert_ts",
        "intraday_odd_quo_convert",
        "intraday_odd_tic_convert",
        "login_check",
        "Base58Encoder",
        "base58",
        "ScannerCountLimit",
        "dump_contracts_file",
        "new_contracts",
    ],
}


@pytest.mark.parametrize("module", sorted(IMPORTED))
def test_module_offers_every_name_the_api_imports(module):
    loaded = importlib.import_module(module)
    missing = [name for name in IMPORTED[module] if not hasattr(loaded, name)]
    assert not missing, "{} lacks {}".format(module, missing)
    exported = getattr(loaded, "__all__", None)
    if exported is not None:
        assert set(exported) <= set(dir(loaded))


def test_base58_namespace_offers_the_package_functions():
    from quorvex.backend.solace.utils import base58

    assert base58.b58decode(base58.b58encode(b"\x00key")) == b"\x00key"
