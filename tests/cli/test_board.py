"""The live views are fed from the messaging thread: they must never raise into it, and what
the main thread reads must be whole."""

import datetime
import io
import threading
import types

import pytest
from rich.console import Console

from quorvex.cli.board import OrderReport, QuoteBoard, ReportLog, price_text

AT = datetime.datetime(2026, 1, 5, 9, 0, 1, 250000)


def tick(code, close, change=1.0):
    return types.SimpleNamespace(
        code=code, datetime=AT, close=close, price_chg=change, pct_chg=0.5, volume=2, total_volume=40
    )


def bidask(code, bid, ask):
    return types.SimpleNamespace(
        code=code,
        datetime=AT,
        bid_price=[bid, bid - 1],
        bid_volume=[5, 9],
        ask_price=[ask, ask + 1],
        ask_volume=[3, 7],
    )


def contract(code, name):
    return types.SimpleNamespace(code=code, name=name)


def rendered(table):
    console = Console(width=160, record=True, file=io.StringIO())
    console.print(table)
    return console.export_text()


def test_board_keeps_the_latest_of_each_contract_and_counts():
    board = QuoteBoard([contract("2330", "Foundry"), contract("TXFA6", "TXF Jan")])
    board.on_tick("TSE", tick("2330", 600.0))
    board.on_tick("TSE", tick("2330", 601.0))
    board.on_bidask("TAIFEX", bidask("TXFA6", 23001.0, 23002.0))
    assert board.counts() == {"ticks": 2, "bidasks": 1}
    assert board.last_price("2330") == 601.0
    assert board.best_bid_ask("TXFA6") == (23001.0, 23002.0)
    text = rendered(board.table())
    assert "601" in text and "23,002" in text and "09:00:01.250" in text


@pytest.mark.parametrize(
    "feed",
    [
        lambda b: b.on_tick("TSE", object()),
        lambda b: b.on_bidask("TSE", types.SimpleNamespace(code="2330")),
        lambda b: b.on_tick("TSE", None),
    ],
)
def test_unreadable_record_is_counted_never_raised(feed):
    board = QuoteBoard([contract("2330", "Foundry")])
    feed(board)
    assert board.errors == 1
    assert "AttributeError" in board.first_error
    board.on_tick("TSE", tick("2330", 600.0))  # the board still works
    assert board.counts()["ticks"] == 1


def test_board_renders_while_fed_from_another_thread():
    board = QuoteBoard([contract("2330", "Foundry")])
    done = threading.Event()

    def feed():
        price = 500.0
        while not done.is_set():
            board.on_tick("TSE", tick("2330", price))
            board.on_bidask("TSE", bidask("2330", price - 0.5, price + 0.5))
            price += 0.5

    feeder = threading.Thread(target=feed)
    feeder.start()
    try:
        for _ in range(50):
            rendered(board.table())
    finally:
        done.set()
        feeder.join(5)
    assert board.errors == 0


def test_report_log_wakes_its_waiter_and_survives_a_failing_printer():
    def printer(report):
        raise RuntimeError("terminal went away")

    log = ReportLog(printer)
    threading.Timer(0.05, log.on_order, ("Deal", {"code": "2330", "price": 600.0, "quantity": 1})).start()
    assert log.wait_for(lambda reports: any(r.is_deal for r in reports), timeout=5)
    assert log.errors == 1
    assert not log.wait_for(lambda reports: len(reports) > 1, timeout=0.05)


@pytest.mark.parametrize(
    "state,message,parts",
    [
        (
            "Order",
            {
                "operation": {"op_type": "New", "op_msg": ""},
                "order": {"action": "Buy", "price": 600.5, "quantity": 1, "ordno": "A0001"},
                "contract": {"code": "2330"},
            },
            ["Buy", "1", "2330", "@ 600.50", "[New]", "order A0001"],
        ),
        (
            "FDeal",
            {"code": "TXFA6", "action": "Sell", "price": 23000.0, "quantity": 2, "ordno": "F9"},
            ["FDeal", "Sell", "2", "TXFA6", "@ 23,000", "order F9"],
        ),
        ("Order", "not a dict", ["Order"]),
    ],
)
def test_report_summary(state, message, parts):
    summary = OrderReport(state, message).summary()
    for part in parts:
        assert part in summary


@pytest.mark.parametrize(
    "value,text", [(600.0, "600"), (23000.0, "23,000"), (12.35, "12.35"), (None, "-"), ("n/a", "n/a")]
)
def test_price_text(value, text):
    assert price_text(value) == text
