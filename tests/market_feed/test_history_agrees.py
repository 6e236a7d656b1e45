"""Snapshots and the stock queries of the paper broker through the client. (That the bars are the
minutes of the ticks and the rankings are in order is the feed's own test.)"""

import datetime

import pytest

from bus.helpers import Recorder
from quorvex.constant import QuoteType, QuoteVersion

from .feed_support import HARBOR, INDEX_FUTURE, TRADING_DAY, TSMC, paper_api


@pytest.fixture(scope="module")
def closing():
    """A market near the stocks' close, ten times faster than real time."""
    api = paper_api(TRADING_DAY + "T13:29:40", 10)
    yield api
    api.logout()


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
        received = Recorder()
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


def test_credit_enquiries_name_each_stock(closing):
    rows = closing.credit_enquires([TSMC, HARBOR])
    assert [row.stock_id for row in rows] == [TSMC.code, HARBOR.code]
    assert all(
        row.margin_unit >= 0 and row.short_unit >= 0 and row.update_time.startswith(TRADING_DAY)
        for row in rows
    )


def test_short_stock_sources_name_each_stock_in_whole_lots():
    # A simulation session is refused these by the client itself and by the broker's own rules.
    live = paper_api(TRADING_DAY + "T10:00", 1, simulation=False)
    try:
        rows = live.short_stock_sources([TSMC, HARBOR])
    finally:
        live.logout()
    assert [row.code for row in rows] == [TSMC.code, HARBOR.code]
    assert all(row.short_stock_source > 0 and row.short_stock_source % 1000 == 0 for row in rows)
