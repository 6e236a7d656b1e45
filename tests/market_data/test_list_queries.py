"""Snapshots, scanners, credit enquiries and short-stock sources."""

import datetime

import pydantic
import pytest

from conftest import freeze_clock, ok, refused
from quorvex.constant import ScannerType
from quorvex.contracts import BaseContract, Future, Stock
from quorvex.data import ChangePercentRank, CreditEnquire, ShortStockSource, Snapshot
from quorvex.error import ServiceError

TSMC = Stock(exchange="TSE", code="2330", name="TSMC", reference=590.0, limit_up=649.0)
MEDIATEK = Stock(exchange="TSE", code="2454")
TXF = Future(exchange="TAIFEX", code="TXFL6", delivery_month="202612")
CONTRACTS = [TSMC, TXF, MEDIATEK]

SNAPSHOTS = [{"code": "2330", "close": 595.0, "volume": 3}, {"code": "TXFL6", "close": 23020.0}]
RANKS = [{"code": "2454", "rank_value": 9.8}, {"code": "2330", "rank_value": 0.3}]
CREDIT = [{"stock_id": "2330", "system": "HE", "margin_unit": 1200}]
SOURCES = [{"code": "2330", "short_stock_source": 58000}, {"code": "2454", "short_stock_source": 0}]

# query, positional arguments, topic attribute, reply key, items, record type
QUERIES = [
    ("snapshots", (CONTRACTS,), "snapshots_topic", "snapshot", SNAPSHOTS, Snapshot),
    (
        "scanners",
        (ScannerType.ChangePercentRank, False),
        "scanner_topic",
        "scanners",
        RANKS,
        ChangePercentRank,
    ),
    ("credit_enquires", ([TSMC],), "credit_enquire_topic", "credit_enquire", CREDIT, CreditEnquire),
    (
        "short_stock_sources",
        ([TSMC, MEDIATEK],),
        "short_stock_source_topic",
        "short_stock_sources",
        SOURCES,
        ShortStockSource,
    ),
]
each_query = pytest.mark.parametrize(
    "query, args, topic, key, items, record", QUERIES, ids=[query[0] for query in QUERIES]
)


@each_query
def test_blocking_queries_return_one_record_per_item_in_reply_order(
    api, query, args, topic, key, items, record
):
    api.session.reply(getattr(api, topic), ok({key: items}))
    result = getattr(api, query)(*args)
    assert type(result) is list and [type(r) for r in result] == [record] * len(items)
    assert result == [record(**item) for item in items]
    assert api._reqrep == {} and api._rep_callback_map == {}


@each_query
def test_non_blocking_queries_extend_the_returned_list(api, query, args, topic, key, items, record):
    api.session.reply(getattr(api, topic), ok({key: items}))
    delivered = []
    result = getattr(api, query)(*args, timeout=0, cb=delivered.append)
    assert result == [] and api.session.last().timeout == 0
    api.session.deliver()
    assert delivered == [result] and delivered[0] is result and len(result) == len(items)


@each_query
def test_a_refused_query_raises_and_forgets_the_request(api, query, args, topic, key, items, record):
    api.session.reply(getattr(api, topic), refused(503, "closed for the night"))
    with pytest.raises(ServiceError, match="maintenance"):
        getattr(api, query)(*args)
    assert api._reqrep == {} and api._rep_callback_map == {}


@each_query
def test_a_reply_without_its_list_gives_an_empty_list(api, query, args, topic, key, items, record):
    api.session.reply(getattr(api, topic), ok({"other": items}))
    delivered = []
    getattr(api, query)(*args, timeout=0, cb=delivered.append)
    api.session.deliver()
    assert delivered == [[]]


def test_contract_payloads(api):
    api.snapshots(CONTRACTS)
    api.credit_enquires(CONTRACTS)
    api.short_stock_sources([])
    snapshots, credit, sources = (r.payload for r in api.session.requests)
    assert snapshots == {"contracts": [BaseContract(**c.dict()).dict() for c in CONTRACTS]}
    assert list(snapshots["contracts"][0]) == ["security_type", "exchange", "code"]
    assert credit == {"contracts": [c.dict() for c in CONTRACTS]}
    assert sources == {"contracts": []}


def test_scanner_payload(api):
    api.scanners(ScannerType.VolumeRank, True, "2024-01-02", 20)
    payload = api.session.last("api/v1/data/scanner").payload
    assert list(payload.items()) == [
        ("scanner_type", ScannerType.VolumeRank),
        ("date", "2024-01-02"),
        ("ascending", True),
        ("count", 20),
    ]
    assert payload["scanner_type"] is ScannerType.VolumeRank


@pytest.mark.parametrize("count, sent", [(1, True), (200, True), (0, False), (201, False), (-3, False)])
def test_scanner_counts_out_of_bounds_are_refused_before_sending(api, count, sent):
    if sent:
        api.scanners(ScannerType.AmountRank, False, count=count)
        assert api.session.last().payload["count"] == count
    else:
        with pytest.raises(pydantic.ValidationError):
            api.scanners(ScannerType.AmountRank, False, count=count)
        assert api.session.requests == []


@pytest.mark.parametrize(
    "kwargs, message",
    [
        ({"date": 20240102}, "Argument 'date' has incorrect type (expected str, got int)"),
        ({"count": "5"}, "Argument 'count' has incorrect type (expected int, got str)"),
    ],
)
def test_scanner_argument_types_are_checked_first(api, kwargs, message):
    with pytest.raises(TypeError) as raised:
        api.scanners(ScannerType.AmountRank, False, **kwargs)
    assert str(raised.value) == message and api.session.requests == []


@pytest.mark.parametrize(
    "utc_now, date",
    [
        (datetime.datetime(2024, 1, 2, 0, 29, tzinfo=datetime.timezone.utc), "2024-01-01"),
        (datetime.datetime(2024, 1, 2, 0, 30, tzinfo=datetime.timezone.utc), "2024-01-02"),
        (datetime.datetime(2024, 1, 2, 7, 0, tzinfo=datetime.timezone.utc), "2024-01-02"),
    ],
)
@pytest.mark.parametrize("given", [None, ""])
def test_scanner_default_date_is_the_utc_date_half_an_hour_ago(
    api, api_module, monkeypatch, utc_now, date, given
):
    freeze_clock(monkeypatch, api_module, utc_now)
    api.scanners(ScannerType.TickCountRank, False, given)
    assert api.session.last().payload["date"] == date


def test_simulation_refuses_only_short_stock_sources(sim_api, warnings):
    assert sim_api.short_stock_sources([TSMC]) == []
    assert sim_api.short_stock_sources([TSMC], timeout=0, cb=pytest.fail) == []
    assert warnings == ["Simulation not support short_stock_sources yet"] * 2
    assert sim_api.session.requests == [] and sim_api._rep_callback_map == {}

    sim_api.snapshots([TSMC])
    sim_api.scanners(ScannerType.ChangePriceRank, True)
    sim_api.credit_enquires([TSMC])
    assert sim_api.session.topics() == [
        "api/v1/data/snapshots",
        "api/v1/data/scanner",
        "api/v1/data/credit_enquire",
    ]
