"""Finding contracts by what a user types, in a contract master built from raw pages."""

import pytest

from quorvex.cli.errors import EXIT_UNKNOWN_CODE, CliError
from quorvex.cli.lookup import near_month, resolve, search
from quorvex.constant import SecurityType
from quorvex.contracts import Contracts


def _stock(code, exchange, name):
    return {
        "security_type": "STK",
        "exchange": exchange,
        "code": code,
        "symbol": exchange + code,
        "name": name,
    }


def _future(code, symbol, delivery, category="TXF"):
    return {
        "security_type": "FUT",
        "exchange": "TAIFEX",
        "code": code,
        "symbol": symbol,
        "name": category + delivery,
        "category": category,
        "delivery_month": delivery[:6],
        "delivery_date": delivery,
        "reference": 23000.0,
    }


@pytest.fixture
def master():
    contracts = Contracts()
    contracts.Stocks.append(
        [
            _stock("2330", "TSE", "Foundry"),
            _stock("2303", "TSE", "United 2330 Co"),
            _stock("6488", "OTC", "Wafers"),
        ]
    )
    # Listed out of delivery order, so the near month is not simply the first or last.
    contracts.Futures.append(
        [
            _future("TXFC6", "TXF202603", "2026/03/18"),
            _future("TXFA6", "TXF202601", "2026/01/21"),
            _future("TXFB6", "TXF202602", "2026/02/25"),
            _future("MXFA6", "MXF202601", "2026/01/21", category="MXF"),
        ]
    )
    contracts.Indexs.append([{"security_type": "IND", "exchange": "TSE", "code": "001", "name": "Weighted"}])
    return contracts


@pytest.mark.parametrize(
    "typed,code",
    [
        ("2330", "2330"),
        ("TSE2330", "2330"),
        ("txfb6", "TXFB6"),
        ("TXF202603", "TXFC6"),
        ("TXF", "TXFA6"),
        ("mxf", "MXFA6"),
        ("001", "001"),
    ],
)
def test_codes_symbols_and_products_resolve(master, typed, code):
    [contract] = resolve(master, [typed])
    assert contract.code == code


def test_near_month_ignores_undated_continuations(master):
    master.Futures.append([dict(_future("TXFR1", "TXFR1", ""), delivery_date="")])
    assert near_month(master, "TXF").code == "TXFA6"
    assert near_month(master, "ZZZ") is None


def test_unknown_code_names_itself_and_ends_with_status_3(master):
    with pytest.raises(CliError) as caught:
        resolve(master, ["2330", "9999"])
    assert caught.value.status == EXIT_UNKNOWN_CODE
    assert "'9999'" in caught.value.message
    assert "quorvex contracts 9999" in caught.value.hint


def test_search_ranks_exact_then_leading_then_others(master):
    found, total = search(master, "2330")
    # 2303 matches only through its name.
    assert [c.code for c in found] == ["2330", "2303"]
    assert total == 2


@pytest.mark.parametrize(
    "text,security_type,limit,codes,total",
    [
        ("txf", SecurityType.Future, 2, ["TXFA6", "TXFB6"], 3),
        ("wafer", None, 20, ["6488"], 1),
        ("", SecurityType.Index, 20, ["001"], 1),
        ("nothing", None, 20, [], 0),
    ],
)
def test_search_filters_and_limits(master, text, security_type, limit, codes, total):
    found, matched = search(master, text, security_type, limit)
    assert [c.code for c in found] == codes
    assert matched == total
