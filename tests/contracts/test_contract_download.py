"""The paged contract download: probe, every page in flight at once, completion per security type."""

import logging
import random

import pytest

from conftest import Request, make_api, ok, refused
from quorvex.constant import FetchStatus, SecurityType
from quorvex.error import ServiceError

TYPES = list(SecurityType)
PAGE_SIZE = 3


def pages_of(count):
    return -(-count // PAGE_SIZE)


def contract(security_type, n):
    code = "{}{:04d}".format(security_type.value, n)
    stock_like = security_type in (SecurityType.Index, SecurityType.Stock)
    group = {"exchange": "TSE"} if stock_like else {"exchange": "TAIFEX", "category": "TXF"}
    return dict(group, security_type=security_type.value, code=code, symbol="SYM" + code, name="n" + code)


class Master:
    """Answers contract page requests from a fixed master: `counts` contracts per type."""

    def __init__(self, counts):
        self.counts = counts

    def __call__(self, request):
        security_type, page = SecurityType(request.payload["security_type"]), request.payload["page"]
        count = self.counts[security_type]
        first, last = max(page - 1, 0) * PAGE_SIZE, min(page * PAGE_SIZE, count)
        rows = [contract(security_type, n) for n in range(first, last)]
        return ok({"contracts": rows, "security_type": security_type.value, "max_page": pages_of(count)})


COUNTS = {SecurityType.Index: 2, SecurityType.Stock: 7, SecurityType.Future: 6, SecurityType.Option: 4}


@pytest.fixture(autouse=True)
def no_cache(tmp_path, monkeypatch):
    # Constructing the api reads today's contracts file; keep tests off the user's cache.
    monkeypatch.setenv("QUORVEX_CONTRACTS_DIR", str(tmp_path))


@pytest.fixture
def dumps(api_module, monkeypatch):
    written = []
    monkeypatch.setattr(api_module, "dump_contracts_file", written.append)
    return written


@pytest.fixture(params=[False, True], ids=["normal", "simulation"])
def served(request, api_module, dumps):
    api = make_api(api_module, simulation=request.param)
    api.session.reply(api.data_contracts_topic, Master(COUNTS))
    return api


def page_requests(api):
    return [r for r in api.session.requests if r.payload["page"] != 0]


def deliver_in(api, order):
    pending = api.session.pending
    for index in order:
        topic, corrid, resp, cb = pending[index]
        cb(topic, corrid, resp)
    api.session.pending = []


def test_full_download_in_any_order_completes_each_type_once(served, dumps):
    completed = []
    served.fetch_all_contract(cb=completed.append)

    probes = [r for r in served.session.requests if r.payload["page"] == 0]
    assert [(r.payload["security_type"], r.timeout) for r in probes] == [(t, 5000) for t in TYPES]
    assert all(r.topic == "api/v1/data/contracts" for r in served.session.requests)
    assert [list(r.payload) for r in probes[:1]] == [["security_type", "page", "page_size"]]
    sent = [(r.payload["security_type"], r.payload["page"], r.timeout) for r in page_requests(served)]
    assert sent == [(t, p, 0) for t in TYPES for p in range(1, pages_of(COUNTS[t]) + 1)]
    assert served.Contracts.status == FetchStatus.Fetching and completed == []

    order = list(range(len(served.session.pending)))
    random.Random(7).shuffle(order)
    deliver_in(served, order)

    assert sorted(completed, key=TYPES.index) == TYPES and len(completed) == 4
    assert served.contract_all_fetched == 4
    assert dumps == [served.Contracts] and served.Contracts.status == FetchStatus.Fetched
    for security_type, count in COUNTS.items():
        collection = served.Contracts.of(security_type)
        assert collection.status == FetchStatus.Fetched and len(collection) == count
    assert served.Contracts.Stocks["STK0006"].name == "nSTK0006"
    assert served.Contracts.Futures.TXF["SYMFUT0005"].code == "FUT0005"
    assert served._rep_callback_map == {}


@pytest.mark.parametrize("order", [(2, 0, 1), (0, 1, 2), (1, 2, 0)])
def test_a_type_completes_only_when_its_last_page_arrives(served, order):
    completed = []
    served.fetch_contract_max_page()
    for page in (1, 2, 3):
        served.fetch_contracts(SecurityType.Stock, page, cb=completed.append)
    for step, index in enumerate(order):
        topic, corrid, resp, cb = served.session.pending[index]
        cb(topic, corrid, resp)
        assert completed == ([SecurityType.Stock] if step == 2 else [])
    assert served.Contracts.Stocks._page_list == [1, 1, 1]


def test_the_default_callback_logs_each_completed_type(served, caplog):
    served.fetch_contract_max_page()
    served.fetch_contracts(SecurityType.Index, 1)
    with caplog.at_level(logging.INFO, logger="quorvex"):
        served.session.deliver()
    assert [r.getMessage() for r in caplog.records] == ["Contracts: IND fetch complete."]


def test_a_refused_page_counts_as_arrived_but_raises(served):
    master = Master(COUNTS)
    served.session.reply(
        served.data_contracts_topic,
        lambda r: refused(500, "page lost", security_type="STK") if r.payload["page"] == 2 else master(r),
    )
    completed = []
    served.fetch_contract_max_page()
    for page in (1, 2, 3):
        served.fetch_contracts(SecurityType.Stock, page, cb=completed.append)
    with pytest.raises(ServiceError, match="page lost"):
        deliver_in(served, [1])
    deliver_in(served, [0, 2])
    assert completed == [SecurityType.Stock]
    assert len(served.Contracts.Stocks) == COUNTS[SecurityType.Stock] - PAGE_SIZE


def test_a_refusal_that_names_no_type_raises_the_refusal(served):
    served.fetch_contract_max_page()
    served.session.reply(served.data_contracts_topic, refused(403, "not entitled"))
    served.fetch_contracts(SecurityType.Stock, 1)
    with pytest.raises(ServiceError, match="not entitled"):
        served.session.deliver()


def test_an_unknown_security_type_in_an_accepted_reply_raises(served):
    with pytest.raises(ValueError, match="BOND"):
        served._fetch_contracts_cb("t", "c", ok({"security_type": "BOND", "contracts": [{"code": "x"}]}))


def test_a_second_download_while_one_runs_sends_nothing(served):
    served.fetch_all_contract()
    sent = len(served.session.requests)
    served.fetch_all_contract()
    assert len(served.session.requests) == sent


def test_a_refused_probe_aborts_and_leaves_the_download_running(served):
    served.session.reply(served.data_contracts_topic, refused(503, "maintenance", security_type="IND"))
    with pytest.raises(ServiceError):
        served.fetch_all_contract()
    assert served.Contracts.status == FetchStatus.Fetching and len(served.session.requests) == 1


def test_a_type_announcing_no_pages_is_never_requested_nor_completed(served, dumps):
    served.session.reply(served.data_contracts_topic, Master(dict(COUNTS, **{SecurityType.Option: 0})))
    served.fetch_all_contract()
    assert SecurityType.Option not in {r.payload["security_type"] for r in page_requests(served)}
    assert served.Contracts.Options._page_list == []
    served.session.deliver()
    assert served.contract_all_fetched == 3 and dumps == []
    assert served.Contracts.status == FetchStatus.Fetching


def test_a_reply_for_an_unknown_corrid_counts_as_page_1(served):
    served.fetch_contract_max_page()
    completed = []
    served.set_contract_cb("known", 2, 0, completed.append)
    page_3 = Master(COUNTS)(Request("t", {"security_type": "STK", "page": 3}, None, 0, None))
    served._fetch_contracts_cb("t", "stranger", page_3)
    assert served.Contracts.Stocks._page_list == [1, 0, 0]
    assert completed == [] and served._rep_callback_map == {"known": {"page": 2, "cb": completed.append}}


def test_a_blocking_page_request_is_handled_inside_the_call(served):
    served.fetch_contract_max_page()
    completed = []
    served.fetch_contracts(SecurityType.Index, 1, 5000, 10, completed.append)
    assert served.session.pending == [] and completed == [SecurityType.Index]
    assert served.session.last().payload == {"security_type": SecurityType.Index, "page": 1, "page_size": 10}
    assert served.Contracts.Indexs.status == FetchStatus.Fetched


def test_a_blocking_download_completes_before_returning(served, dumps):
    served.fetch_all_contract(timeout=5000)
    assert served.Contracts.status == FetchStatus.Fetched and dumps == [served.Contracts]
    served.fetch_all_contract(timeout=5000)  # a finished download may be run again
    assert len(dumps) == 2


@pytest.mark.parametrize("pages, complete", [([], True), ([1, 1], True), ([1, 0], False), ([0], False)])
def test_fetch_all_page(api, pages, complete):
    assert api.fetch_all_page(pages) is complete
