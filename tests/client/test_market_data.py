"""Quotes through the decorators, history as DataFrames, the contract master's month helpers."""

import threading

import pytest

from quorvex.constant import Exchange


def test_ticks_and_bidasks_reach_the_decorated_handlers(client):
    got = {"tick": threading.Event(), "bidask": threading.Event()}

    @client.on_tick
    def tick(exchange, record):
        if record.code == "2330" and exchange is Exchange.TSE:
            got["tick"].set()

    @client.on_bidask
    def bidask(exchange, record):
        got["bidask"].set()

    for kind in ("tick", "bidask"):
        client.subscribe("2330", kind)
    assert got["tick"].wait(10) and got["bidask"].wait(10)


def test_history_frames_have_one_naming_style_and_taipei_times(client):
    pytest.importorskip("pandas")
    bars = client.kbars("2330").df()
    assert list(bars.columns) == ["ts", "open", "high", "low", "close", "volume", "amount"]
    assert len(bars) and str(bars["ts"].dt.tz) == "Asia/Taipei"
    assert bars["ts"].iloc[0].hour == 9  # the replayed opening, in Taipei time

    quotes = client.daily_quotes().df()
    assert {"date", "code", "close"} <= set(quotes.columns)
    snapshots = client.snapshots(["2330", "TXF"]).df()
    assert list(snapshots["code"]) == ["2330", client.contract("TXF").code]


def test_near_month_and_continuous_contracts(client):
    master = client.contracts
    months = sorted(
        (c for c in master.Futures.TXF.values() if not c.target_code), key=lambda c: c.delivery_date
    )
    assert master.near_month("txf").code == months[0].code == client.contract("TXF").code
    second = master.continuous("TXF", 2)
    assert (second.code, second.target_code) == ("TXFR2", months[1].code)
    assert master.near_month("NOPE") is None
    with pytest.raises(ValueError, match="rank must be a whole number from 1"):
        master.continuous("TXF", 0)
