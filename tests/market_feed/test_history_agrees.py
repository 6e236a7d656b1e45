"""History, snapshots and rankings of the paper broker agree with its quotes and with each other."""

import datetime
from collections import OrderedDict

import pytest

from quorvex.constant import QuoteType, QuoteVersion, ScannerType

from .feed_support import HARBOR, INDEX_FUTURE, PREVIOUS_DAY, TRADING_DAY, TSMC, Received, paper_api

MINUTE = 60 * 10**9


@pytest.fixture(scope="module")
def closing():
    """A market near the stocks' close, ten times faster than real time."""
    api = paper_api(TRADING_DAY + "T13:29:40", 10)
    yield api
    api.logout()


def test_kbars_aggregate_the_ticks_exactly(closing):
    ticks = closing.ticks(HARBOR, PREVIOUS_DAY)
    kbars = closing.kbars(HARBOR, PREVIOUS_DAY, PREVIOUS_DAY)
    assert len(ticks.ts) > 100
    minutes = OrderedDict()
    for ts, close, volume in zip(ticks.ts, ticks.close, ticks.volume):
        minutes.setdefault(ts - ts % MINUTE, []).append((close, volume))
    assert kbars.ts == list(minutes)
    for i, trades in enumerate(minutes.values()):
        closes = [close for close, _ in trades]
        assert (kbars.Open[i], kbars.High[i], kbars.Low[i], kbars.Close[i]) == (
            closes[0],
            max(closes),
            min(closes),
            closes[-1],
        )
        assert kbars.Volume[i] == sum(volume for _, volume in trades)
        # A board lot is 1,000 shares.
        assert kbars.Amount[i] == pytest.approx(sum(close * volume * 1000 for close, volume in trades))


@pytest.mark.parametrize(
    "contract, setter, starts, closes_at",
    [
        (TSMC, "set_on_tick_stk_v1_callback", "13:29:50", "13:30:00"),
        (INDEX_FUTURE, "set_on_tick_fop_v1_callback", "13:44:50", "13:45:00"),
    ],
    ids=["stock", "future"],
)
def test_a_snapshot_agrees_with_the_last_published_tick(contract, setter, starts, closes_at):
    # Ten market seconds before the closing auction, the day's last trade; nothing trades after it.
    api = paper_api(TRADING_DAY + "T" + starts, 10)
    try:
        received = Received()
        getattr(api, setter)(received)
        api.subscribe(contract, QuoteType.Tick, False, QuoteVersion.v1)
        calls = received.wait(1)
        while calls[-1][1].datetime.strftime("%H:%M:%S") != closes_at:
            calls = received.wait(len(calls) + 1)
        last = calls[-1][1]
        snapshot = api.snapshots([contract])[0]
    finally:
        api.logout()
    assert snapshot.code == contract.code
    assert (snapshot.close, snapshot.open, snapshot.high, snapshot.low) == (
        last.close,
        last.open,
        last.high,
        last.low,
    )
    assert (snapshot.volume, snapshot.total_volume) == (last.volume, last.total_volume)
    assert snapshot.total_amount == pytest.approx(last.total_amount)
    assert snapshot.average_price == pytest.approx(last.avg_price)
    assert snapshot.change_price == pytest.approx(last.price_chg)
    epoch = datetime.datetime(1970, 1, 1)
    assert snapshot.ts == (last.datetime - epoch) // datetime.timedelta(microseconds=1) * 1000


@pytest.mark.parametrize(
    "scanner, field",
    [
        (ScannerType.VolumeRank, "total_volume"),
        (ScannerType.AmountRank, "total_amount"),
        (ScannerType.ChangePriceRank, "change_price"),
    ],
)
@pytest.mark.parametrize("ascending", [False, True], ids=["descending", "ascending"])
@pytest.mark.parametrize("count", [1, 7])
def test_scanners_order_and_count(closing, scanner, field, ascending, count):
    rows = closing.scanners(scanner, ascending, PREVIOUS_DAY, count)
    assert len(rows) == count
    values = [row.rank_value for row in rows]
    assert values == sorted(values, reverse=not ascending)
    for row in rows:
        assert row.rank_value == pytest.approx(getattr(row, field))
        assert row.date == PREVIOUS_DAY and row.name


def test_credit_enquiries_name_each_stock(closing):
    rows = closing.credit_enquires([TSMC, HARBOR])
    assert [row.stock_id for row in rows] == [TSMC.code, HARBOR.code]
    assert all(
        row.margin_unit >= 0 and row.short_unit >= 0 and row.update_time.startswith(TRADING_DAY)
        for row in rows
    )


def test_short_stock_sources_are_for_live_sessions(closing):
    assert closing.short_stock_sources([TSMC]) == []  # the client itself refuses in simulation
    # The broker refuses a simulation session too, should a request reach it.
    reply = closing.session.request(
        "api/v1/data/short_stock_sources",
        {"contracts": [TSMC.dict()]},
        corrid=closing.session._gen_reqid(),
        timeout=5000,
        cb=None,
    )
    assert reply["status"]["status_code"] == 403
    live = paper_api(TRADING_DAY + "T10:00", 1, simulation=False)
    try:
        rows = live.short_stock_sources([TSMC, HARBOR])
    finally:
        live.logout()
    assert [row.code for row in rows] == [TSMC.code, HARBOR.code]
    assert all(row.short_stock_source > 0 and row.short_stock_source % 1000 == 0 for row in rows)
