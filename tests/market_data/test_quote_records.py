"""The real-time quote records: content layouts, conversions, presentation, refusals."""

import datetime
import pickle

import pytest
from hypothesis import given
from hypothesis import strategies as st

from market_data_fixtures import (
    OPENING,
    futures_bidask_content,
    futures_tick_content,
    stock_bidask_content,
    stock_quote_content,
    stock_tick_content,
)
from quorvex.backend.solace.bidask import BidAskFOPv1, BidAskSTKv1
from quorvex.backend.solace.quote import QuoteSTKv1
from quorvex.backend.solace.tick import TickFOPv1, TickSTKv1

KINDS = [
    pytest.param(TickSTKv1, "from_content", stock_tick_content, id="tick-stk"),
    pytest.param(TickSTKv1, "from_content_odd", stock_tick_content, id="tick-odd"),
    pytest.param(TickFOPv1, "from_content", futures_tick_content, id="tick-fop"),
    pytest.param(BidAskSTKv1, "from_content", stock_bidask_content, id="bidask-stk"),
    pytest.param(BidAskSTKv1, "from_content_odd", stock_bidask_content, id="bidask-odd"),
    pytest.param(BidAskFOPv1, "from_content", futures_bidask_content, id="bidask-fop"),
    pytest.param(QuoteSTKv1, "from_content", stock_quote_content, id="quote-stk"),
]


@pytest.mark.parametrize("cls, constructor, content", KINDS)
def test_content_round_trip_and_presentation(cls, constructor, content):
    elements = content()
    record = getattr(cls, constructor)(*elements)

    assert type(record) is cls
    assert record.to_content() == elements
    assert record.datetime == OPENING
    fields = record.dict()
    assert list(fields) == record.keys() and dict(record) == fields
    assert all(getattr(record, name) == value == record[name] for name, value in fields.items())
    assert ("intraday_odd" in fields) == hasattr(cls, "from_content_odd")

    again = getattr(cls, constructor)(*record.to_content())
    assert again == record and hash(again) == hash(record) and not again != record  # noqa: SIM202 (tests __ne__)
    assert pickle.loads(pickle.dumps(record)) == record

    text = repr(record)
    assert text.startswith(cls.__name__ + "(code=" + repr(elements[0]))
    assert all(" {}=".format(name) in text for name in list(fields)[1:])


STOCK_TRADE = [
    "code",
    "datetime",
    "open",
    "close",
    "high",
    "low",
    "avg_price",
    "amount",
    "total_amount",
    "volume",
    "total_volume",
    "tick_type",
    "chg_type",
    "price_chg",
    "pct_chg",
    "bid_side_total_vol",
    "ask_side_total_vol",
    "bid_side_total_cnt",
    "ask_side_total_cnt",
    "closing_oddlot_shares",
    "fixed_trade_vol",
]
BOOK = ["bid_price", "bid_volume", "diff_bid_vol", "ask_price", "ask_volume", "diff_ask_vol"]
FUTURES_TRADE = [
    "code",
    "datetime",
    "open",
    "underlying_price",
    "bid_side_total_vol",
    "ask_side_total_vol",
    "avg_price",
    "close",
    "high",
    "low",
    "amount",
    "total_amount",
    "volume",
    "total_volume",
    "tick_type",
    "chg_type",
    "price_chg",
    "pct_chg",
    "simtrade",
]
FUTURES_DERIVED = [
    "first_derived_bid_price",
    "first_derived_ask_price",
    "first_derived_bid_vol",
    "first_derived_ask_vol",
    "underlying_price",
    "simtrade",
]


@pytest.mark.parametrize(
    "cls, content, layout",
    [
        (TickSTKv1, stock_tick_content, STOCK_TRADE + ["suspend", "simtrade"]),
        (TickFOPv1, futures_tick_content, FUTURES_TRADE),
        (BidAskSTKv1, stock_bidask_content, ["code", "datetime"] + BOOK + ["suspend", "simtrade"]),
        (
            BidAskFOPv1,
            futures_bidask_content,
            ["code", "datetime", "bid_total_vol", "ask_total_vol"] + BOOK + FUTURES_DERIVED,
        ),
        (QuoteSTKv1, stock_quote_content, STOCK_TRADE + BOOK + ["suspend", "simtrade"]),
    ],
)
def test_content_layouts_are_the_published_ones(cls, content, layout):
    """The element order is the wire contract with the feed (the protocol document)."""
    names = [name for name in cls.from_content(*content()).keys() if name != "intraday_odd"]  # noqa: SIM118 (the record's keys())
    assert names == layout


@pytest.mark.parametrize(
    "cls, content", [(TickSTKv1, stock_tick_content), (BidAskSTKv1, stock_bidask_content)]
)
def test_odd_lot_records_are_marked_and_differ_from_board_lots(cls, content):
    board, odd = cls.from_content(*content()), cls.from_content_odd(*content())
    assert (board.intraday_odd, odd.intraday_odd) == (False, True)
    assert board != odd
    assert pickle.loads(pickle.dumps(odd)).intraday_odd is True


def test_values_take_their_field_types():
    elements = stock_tick_content()
    elements[3] = 595  # an int price
    elements[21] = 1  # an int flag
    tick = TickSTKv1.from_content(*elements)
    assert (tick.close, type(tick.close)) == (595.0, float)
    assert (tick.volume, type(tick.volume)) == (3, int)
    assert tick.suspend is True and tick.simtrade is True


def test_a_thin_book_is_padded_to_five_levels():
    elements = stock_bidask_content()
    elements[2:4] = [[595.0, 594.5], (7,)]
    bidask = BidAskSTKv1.from_content(*elements)
    assert bidask.bid_price == [595.0, 594.5, 0.0, 0.0, 0.0]
    assert bidask.bid_volume == [7, 0, 0, 0, 0]


def test_records_are_read_only_and_made_from_content_only():
    tick = TickSTKv1.from_content(*stock_tick_content())
    with pytest.raises(AttributeError):
        tick.close = 1.0
    with pytest.raises(TypeError):
        TickSTKv1()
    assert tick != tuple(stock_tick_content())
    with pytest.raises(KeyError, match="TickSTKv1 has no field 'price'; its fields are code, datetime"):
        tick["price"]


def _replace(elements, index, value):
    elements = list(elements)
    elements[index] = value
    return elements


@pytest.mark.parametrize("elements, count", [(stock_tick_content()[:-1], 22), (stock_tick_content() * 2, 46)])
def test_the_element_count_must_match_the_layout(elements, count):
    message = r"TickSTKv1 expects 23 content elements \(code, datetime, .*, simtrade\), got {}".format(count)
    with pytest.raises(TypeError, match=message):
        TickSTKv1.from_content(*elements)


@pytest.mark.parametrize(
    "index, value, error, message",
    [
        (0, 2330, TypeError, r"content\[0\] \(code\) must be a str, got int"),
        (3, "595", TypeError, r"content\[3\] \(close\) must be a number, got str"),
        (9, 3.0, TypeError, r"content\[9\] \(volume\) must be an integer, got float"),
        (9, 2**64, ValueError, r"content\[9\] \(volume\) does not fit a 64-bit integer"),
        (22, "no", TypeError, r"content\[22\] \(simtrade\) must be a bool, got str"),
        (
            1,
            "2024-01-02 09:00:01",
            TypeError,
            r"content\[1\] \(datetime\) must be epoch microseconds \(int\) or a datetime.datetime, got str",
        ),
        (1, 10**18, ValueError, r"content\[1\] \(datetime\) is outside the years 1 to 9999"),
    ],
)
def test_malformed_elements_are_refused_by_name_and_position(index, value, error, message):
    with pytest.raises(error, match=message):
        TickSTKv1.from_content(*_replace(stock_tick_content(), index, value))


@pytest.mark.parametrize(
    "index, levels, error, message",
    [
        (2, [1.0] * 6, ValueError, r"content\[2\] \(bid_price\) holds at most 5 levels, got 6"),
        (2, [1.0, "x"], TypeError, r"content\[2\] \(bid_price\) level 1 must be a number, got str"),
        (2, "595.0", TypeError, r"content\[2\] \(bid_price\) must be a list of prices, best first, got str"),
        (2, 595.0, TypeError, r"must be a list of prices"),
        (3, [1.5], TypeError, r"content\[3\] \(bid_volume\) level 0 must be an integer, got float"),
    ],
)
def test_malformed_book_levels_are_refused(index, levels, error, message):
    with pytest.raises(error, match=message):
        BidAskSTKv1.from_content(*_replace(stock_bidask_content(), index, levels))


TAIPEI = datetime.timezone(datetime.timedelta(hours=8))
EPOCH_IN_TAIPEI = datetime.datetime(1970, 1, 1, 8)


@pytest.mark.parametrize(
    "given_time, shown",
    [
        (OPENING, OPENING),  # naive: already Taipei time
        (datetime.datetime(2024, 1, 2, 1, 0, 1, 500000, tzinfo=datetime.timezone.utc), OPENING),
        (
            datetime.datetime(
                2024, 1, 1, 20, 0, 1, 500000, tzinfo=datetime.timezone(-datetime.timedelta(hours=5))
            ),
            OPENING,
        ),
    ],
    ids=["naive", "utc", "new-york"],
)
def test_times_are_shown_as_taipei_wall_clock(given_time, shown):
    tick = TickFOPv1.from_content(*_replace(futures_tick_content(), 1, given_time))
    assert tick.datetime == shown
    assert tick.datetime.tzinfo is None
    assert tick.to_content()[1] == (shown - EPOCH_IN_TAIPEI) // datetime.timedelta(microseconds=1)


EARLIEST = int(datetime.datetime(1, 1, 1, tzinfo=TAIPEI).timestamp()) * 1_000_000
LATEST = int(datetime.datetime(9999, 12, 31, 23, 59, 59, tzinfo=TAIPEI).timestamp()) * 1_000_000 + 999_999


@given(st.integers(min_value=EARLIEST, max_value=LATEST))
def test_epoch_microseconds_convert_exactly_both_ways(micros):
    tick = TickFOPv1.from_content(*_replace(futures_tick_content(), 1, micros))
    expected = EPOCH_IN_TAIPEI + datetime.timedelta(microseconds=micros)
    assert tick.datetime == expected
    assert tick.to_content()[1] == micros
