"""The subscription topic of a contract."""

import pytest

from quorvex.backend.solace.quote import contract2topic
from quorvex.constant import QuoteType, QuoteVersion
from quorvex.contracts import Future, Index, Option, Stock

TSMC = Stock(exchange="TSE", code="2330")
OTC_STOCK = Stock(exchange="OTC", code="6488")
TXF = Future(exchange="TAIFEX", code="TXFL6")
NEAR_MONTH = Future(exchange="TAIFEX", code="TXFR1", target_code="TXFL6")
TXO = Option(exchange="TAIFEX", code="TXO23000L6")

Tick, BidAsk, Quote = QuoteType.Tick, QuoteType.BidAsk, QuoteType.Quote
v0, v1 = QuoteVersion.v0, QuoteVersion.v1


@pytest.mark.parametrize(
    "contract, quote_type, odd, version, topic",
    [
        (TSMC, Tick, False, v1, "TIC/v1/STK/*/TSE/2330"),
        (TSMC, BidAsk, False, v1, "QUO/v1/STK/*/TSE/2330"),
        (TSMC, Quote, False, v1, "QUO/v2/STK/*/TSE/2330"),
        (TSMC, Tick, True, v1, "TIC/v1/ODD/*/TSE/2330"),
        (TSMC, BidAsk, True, v1, "QUO/v1/ODD/*/TSE/2330"),
        (OTC_STOCK, Tick, False, v1, "TIC/v1/STK/*/OTC/6488"),
        (TXF, Tick, False, v1, "TIC/v1/FOP/*/TFE/TXFL6"),
        (TXF, BidAsk, False, v1, "QUO/v1/FOP/*/TFE/TXFL6"),
        (TXO, Tick, False, v1, "TIC/v1/FOP/*/TFE/TXO23000L6"),
        (NEAR_MONTH, Tick, False, v1, "TIC/v1/FOP/*/TFE/TXFL6"),
        (TSMC, Tick, False, v0, "TIC/v0/STK/*/TSE/2330"),
        (TSMC, BidAsk, False, v0, "QUO/v0/STK/*/TSE/2330"),
        (TSMC, Tick, True, v0, "TIC/v0/ODD/*/TSE/2330/ODDLOT"),
        (TSMC, BidAsk, True, v0, "QUO/v0/ODD/*/TSE/2330/ODDLOT"),
        (TXF, BidAsk, False, v0, "QUO/v0/FOP/*/TFE/TXFL6"),
        (TSMC, "tick", 0, "v1", "TIC/v1/STK/*/TSE/2330"),  # the enumerations' values serve as well
    ],
)
def test_topics(contract, quote_type, odd, version, topic):
    assert contract2topic(contract, quote_type, odd, version) == topic


@pytest.mark.parametrize(
    "contract, quote_type, odd, version, message",
    [
        (TSMC, Quote, True, v1, r"board-lot stocks with QuoteVersion.v1 only; got 2330 \(intraday odd\)"),
        (TSMC, Quote, False, v0, r"QuoteType.Quote .* got 2330 with version v0"),
        (TXF, Quote, False, v1, r"QuoteType.Quote"),
        (TXF, Tick, True, v1, r"intraday odd lots are traded in stocks only; TXFL6 is of security type FUT"),
        (Index(exchange="TSE", code="001"), Tick, False, v1, r"no real-time quotes .* for 001 .*type IND"),
        (Stock(exchange="TAIFEX", code="2330"), Tick, False, v1, r"expected TSE, OTC or OES"),
        (Stock(exchange="TSE", code="23/30"), Tick, False, v1, r"cannot be part of a topic"),
        (Stock(exchange="TSE", code="*"), Tick, False, v1, r"cannot be part of a topic"),
        (TSMC, "ticks", False, v1, r"quote_type must be QuoteType.Tick, .* or QuoteType.Quote, got 'ticks'"),
        (TSMC, Tick, False, "v2", r"version must be QuoteVersion.v0 or QuoteVersion.v1, got 'v2'"),
    ],
)
def test_refusals(contract, quote_type, odd, version, message):
    with pytest.raises(ValueError, match=message):
        contract2topic(contract, quote_type, odd, version)


def test_a_contract_without_a_code_is_a_type_error():
    class Nameless:
        security_type, exchange, code = "STK", "TSE", None

    with pytest.raises(TypeError, match="a contract's code must be a non-empty str, got None"):
        contract2topic(Nameless(), Tick, False, v1)
