import msgpack
import pytest

from quorvex.backend.solace import utils as backend_utils
from quorvex.backend.solace.utils import dump_contracts_file, new_contracts
from quorvex.constant import FetchStatus, SecurityType
from quorvex.contracts import Contracts, Future, Index, Option, Stock, get_product_contracts


def stock(code, exchange="TSE", **more):
    fields = dict(
        security_type="STK",
        exchange=exchange,
        code=code,
        symbol=exchange + code,
        name="n" + code,
        category="24",
        limit_up=11.0,
        limit_down=9.0,
        reference=10.0,
    )
    fields.update(more)
    return fields


def future(code, category="TXF", month="202612"):
    return dict(
        security_type="FUT",
        exchange="TAIFEX",
        code=code,
        symbol=category + month,
        category=category,
        delivery_month=month,
    )


@pytest.fixture
def contracts():
    master = Contracts()
    master.Stocks.append(get_product_contracts(SecurityType.Stock)([stock("2330"), stock("6488", "OTC")]))
    master.Futures.append(get_product_contracts("FUT")([future("TXFL6"), future("MXFL6", "MXF")]))
    master.Indexs.append(get_product_contracts(SecurityType.Index)([dict(exchange="TSE", code="001")]))
    master.Options.append(
        get_product_contracts(SecurityType.Option)(
            [dict(exchange="TAIFEX", code="TXO18000L6", category="TXO", strike_price=18000, option_right="C")]
        )
    )
    return master


def test_one_collection_per_security_type_in_order():
    master = Contracts()
    assert [c.name for c in master] == ["Indexs", "Stocks", "Futures", "Options"]
    assert all(getattr(master, t.name + "s").security_type is t for t in SecurityType)
    assert master.status is FetchStatus.Unfetch


@pytest.mark.parametrize(
    "security_type,cls",
    [
        (SecurityType.Index, Index),
        (SecurityType.Stock, Stock),
        (SecurityType.Future, Future),
        (SecurityType.Option, Option),
    ],
)
def test_lookup_builds_the_record_class_of_the_type(contracts, security_type, cls):
    collection = contracts.of(security_type)
    code = next(iter(collection))
    assert type(collection[code]) is cls and collection[code].security_type is security_type


def test_records_are_built_on_first_access_only(contracts):
    assert contracts.Stocks._built == {}
    first = contracts.Stocks["2330"]
    assert list(contracts.Stocks._built) == ["2330"]
    assert contracts.Stocks.get("2330") is first and contracts.Stocks.TSE["2330"] is first
    assert first.limit_up == 11.0 and first.name == "n2330"


def test_lookup_by_code_symbol_and_group(contracts):
    assert contracts.Futures.TXF["TXF202612"] is contracts.Futures["TXFL6"] is contracts.Futures.TXF.TXF202612
    assert "6488" in contracts.Stocks.OTC and "2330" not in contracts.Stocks.OTC
    assert contracts.Stocks.get("9999") is None and contracts.Stocks.TSE.get("6488", "none") == "none"
    assert sorted(contracts.Stocks) == ["2330", "6488"] and len(contracts) == 6
    with pytest.raises(KeyError, match="no contract '9999' in Stocks"):
        contracts.Stocks["9999"]
    with pytest.raises(AttributeError, match="no exchange or product 'NYSE'; known: OTC, TSE"):
        contracts.Stocks.NYSE
    with pytest.raises(AttributeError, match=r"no contract 'TXF202601' in Futures\.TXF"):
        contracts.Futures.TXF.TXF202601


def test_a_later_page_replaces_a_contract_and_drops_its_built_record(contracts):
    old = contracts.Stocks["2330"]
    contracts.Stocks.append([stock("2330", limit_up=12.0)])
    assert contracts.Stocks["2330"] is not old and contracts.Stocks["2330"].limit_up == 12.0


def test_entries_without_a_code_are_skipped():
    master = Contracts()
    assert master.Stocks.append([stock("2330"), {"name": "no code"}, "junk", stock("")]) == 1
    assert list(master.Stocks) == ["2330"]


@pytest.mark.parametrize(
    "block,error,match",
    [
        (get_product_contracts("FUT")([]), ValueError, "a Future page cannot go into Stocks"),
        ({"code": "2330"}, TypeError, "expects a contract page or a list"),
    ],
)
def test_append_refuses_the_wrong_block(block, error, match):
    with pytest.raises(error, match=match):
        Contracts().Stocks.append(block)


def test_page_classes_check_their_input():
    with pytest.raises(ValueError, match="unknown security type 'BOND'"):
        get_product_contracts("BOND")
    with pytest.raises(TypeError, match="list of contract dicts"):
        get_product_contracts("STK")({"code": "2330"})


def test_a_bad_contract_fails_when_looked_up_naming_the_field():
    master = Contracts()
    master.Stocks.append([stock("2330", limit_up="high")])
    with pytest.raises(Exception, match="limit_up"):
        master.Stocks["2330"]


@pytest.fixture
def cache_dir(tmp_path, monkeypatch):
    monkeypatch.setenv("QUORVEX_CONTRACTS_DIR", str(tmp_path / "cache"))
    monkeypatch.setattr(backend_utils, "trading_day", lambda: "2024-01-02")
    return tmp_path / "cache"


def test_contracts_file_round_trip(cache_dir, contracts):
    contracts.Stocks["2330"]  # a built record must not change what is stored
    path = dump_contracts_file(contracts)
    assert path == cache_dir / "contracts.msgpack"
    assert [p.name for p in cache_dir.iterdir()] == ["contracts.msgpack"]
    loaded = new_contracts()
    assert loaded.status is FetchStatus.Fetched and loaded.Stocks.status is FetchStatus.Fetched
    assert loaded.Stocks["2330"] == contracts.Stocks["2330"]
    assert loaded.Futures.MXF["MXF202612"].code == "MXFL6"
    assert len(loaded) == len(contracts)


def test_the_file_keeps_its_broker_and_no_expired_contract(cache_dir, contracts):
    contracts.host = "mqtt://broker:1883"
    contracts.Futures.append([dict(future("TXFA4", month="202401"), delivery_date="2024-01-01")])
    contracts.Futures.append([dict(future("TXFB4", month="202402"), delivery_date="2024-02-21")])
    dump_contracts_file(contracts)
    loaded = new_contracts()
    assert (loaded.host, loaded.trading_day) == ("mqtt://broker:1883", "2024-01-02")
    assert "TXFB4" in loaded.Futures and "TXFA4" not in loaded.Futures


def test_a_download_replaces_what_the_file_brought(cache_dir, contracts):
    dump_contracts_file(contracts)
    loaded = new_contracts()
    loaded.Stocks._max_page = 1  # the download's probe
    loaded.Stocks.append([stock("1101")])
    assert list(loaded.Stocks) == ["1101"] and loaded.Stocks.status is FetchStatus.Unfetch


def test_a_file_from_another_trading_day_is_not_loaded(cache_dir, contracts, monkeypatch):
    dump_contracts_file(contracts)
    monkeypatch.setattr(backend_utils, "trading_day", lambda: "2024-01-03")
    assert len(new_contracts()) == 0 and new_contracts().status is FetchStatus.Unfetch


@pytest.mark.parametrize(
    "content", [None, b"\xc1 not msgpack", msgpack.packb([1, 2]), msgpack.packb({"format": 99})]
)
def test_a_missing_or_unreadable_file_gives_an_empty_master(cache_dir, content):
    if content is not None:
        cache_dir.mkdir()
        (cache_dir / "contracts.msgpack").write_bytes(content)
    assert len(new_contracts()) == 0


def test_a_failed_write_keeps_the_previous_file_and_leaves_no_temp(cache_dir, contracts, monkeypatch):
    dump_contracts_file(contracts)
    before = (cache_dir / "contracts.msgpack").read_bytes()

    def refuse(*args):
        raise OSError("disk full")

    monkeypatch.setattr(backend_utils.os, "replace", refuse)
    contracts.Stocks.append([stock("1101")])
    assert dump_contracts_file(contracts) is None
    assert (cache_dir / "contracts.msgpack").read_bytes() == before
    assert [p.name for p in cache_dir.iterdir()] == ["contracts.msgpack"]


def test_cache_folder_is_private(cache_dir, contracts):
    dump_contracts_file(contracts)
    assert cache_dir.stat().st_mode & 0o077 == 0
