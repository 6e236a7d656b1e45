"""Contract master download: 100,000 contracts in pages of 5,000 into a container marked fetched.

    PYTHONPATH=python python bench/contracts_download.py [--contracts N] [--runs R]

Each page reply is prepared as msgpack bytes up front, as the broker would serve it. The
session decodes a reply when it is delivered (as the bus does) and hands it to the api's
reply handler on its own thread; the clock runs from `fetch_all_contract()` to the container
marked fetched, the contracts file written, and one contract looked up by code.

The baseline, measured in the same run, is decoding the same page bytes into the same dicts
without the api; the figure to watch is the ratio. Memory per contract is measured in a
separate pass with tracemalloc, so that tracing does not slow the timed runs.
"""
import argparse
import gc
import os
import queue
import statistics
import sys
import tempfile
import threading
import time
import tracemalloc
from typing import Dict, List

import msgpack
from quorvex.constant import FetchStatus, SecurityType

PAGE_SIZE = 5000
# Share of the master per security type; every type gets at least one page.
SHARES = {
    SecurityType.Index: 0.05, SecurityType.Stock: 0.40, SecurityType.Future: 0.20, SecurityType.Option: 0.35,
}


def synthetic_contract(security_type: SecurityType, n: int) -> Dict[str, object]:
    code = "{}{:06d}".format(security_type.value, n)
    row = {
        "security_type": security_type.value, "code": code, "symbol": "S" + code, "name": "Contract " + code,
        "unit": 1000, "limit_up": 110.0, "limit_down": 90.0, "reference": 100.0, "update_date": "2026/11/20",
    }
    if security_type in (SecurityType.Index, SecurityType.Stock):
        row.update(exchange="TSE", category="24", day_trade="Yes")
    else:
        row.update(exchange="TAIFEX", category="TXF", delivery_month="202612", delivery_date="2026/12/16",
                   underlying_kind="I", multiplier=200)
    if security_type is SecurityType.Option:
        row.update(strike_price=18000.0 + n, option_right="C")
    return row


def build_master(total: int) -> Dict[SecurityType, List[bytes]]:
    """Encoded replies per type: index 0 is the probe, index p is data page p."""
    master = {}
    for security_type, share in SHARES.items():
        count = max(PAGE_SIZE, int(total * share) // PAGE_SIZE * PAGE_SIZE)
        pages = -(-count // PAGE_SIZE)
        replies = [msgpack.packb({"status": {"status_code": 200}, "response": {
            "contracts": [], "security_type": security_type.value, "max_page": pages}})]
        for page in range(pages):
            rows = [synthetic_contract(security_type, n)
                    for n in range(page * PAGE_SIZE, min((page + 1) * PAGE_SIZE, count))]
            replies.append(msgpack.packb({"status": {"status_code": 200}, "response": {
                "contracts": rows, "security_type": security_type.value, "max_page": pages}}))
        master[security_type] = replies
    return master


class PagedSession:
    """A session that serves the encoded master: blocking requests return the decoded reply,
    non-blocking ones are decoded and handled on a delivery thread, one at a time."""

    def __init__(self, master):
        self.master = master
        self.sol = False
        self._token = ""
        self._ids = 0
        self.inbox = queue.Queue()
        self.failure = None
        threading.Thread(target=self._deliver, daemon=True).start()

    def _deliver(self):
        while True:
            topic, corrid, raw, cb = self.inbox.get()
            try:
                cb(topic, corrid, msgpack.unpackb(raw))
            except BaseException as error:  # reported by the main thread
                self.failure = error
            self.inbox.task_done()

    def _gen_reqid(self):
        self._ids += 1
        return str(self._ids)

    def request(self, topic, payload, corrid=None, timeout=5000, cb=None):
        raw = self.master[SecurityType(payload["security_type"])][payload["page"]]
        if timeout:
            return msgpack.unpackb(raw)
        self.inbox.put((topic, corrid, raw, cb))
        return None

    def __getattr__(self, name):  # connect, callbacks and the rest: not used here
        return lambda *args, **kwargs: None


def new_api(module, master):
    module.SolClient = lambda: PagedSession(master)
    return module.SolaceAPI("inproc://bench", "vpn", "user", "password", False)


def download(module, master, probe_code):
    api = new_api(module, master)
    start = time.perf_counter()
    api.fetch_all_contract(cb=None)
    api.session.inbox.join()
    found = api.Contracts.Stocks[probe_code]
    elapsed = time.perf_counter() - start
    if api.session.failure is not None:
        raise api.session.failure
    assert api.Contracts.status == FetchStatus.Fetched and found.code == probe_code
    return elapsed, api


def decode_only(master):
    start = time.perf_counter()
    pages = [msgpack.unpackb(raw) for replies in master.values() for raw in replies[1:]]
    elapsed = time.perf_counter() - start
    return elapsed, sum(len(page["response"]["contracts"]) for page in pages)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--contracts", type=int, default=100_000)
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()

    os.environ["QUORVEX_CONTRACTS_DIR"] = tempfile.mkdtemp(prefix="qv-bench-contracts-")
    import quorvex.backend.solace.api as module

    module.atexit = type("NoExit", (), {"register": staticmethod(lambda f: f)})
    master = build_master(args.contracts)
    probe_code = "{}{:06d}".format(SecurityType.Stock.value, 1234)
    pages = sum(len(replies) - 1 for replies in master.values())

    timings, baselines = [], []
    for _ in range(args.runs):
        gc.collect()
        baseline, count = decode_only(master)
        elapsed, api = download(module, master, probe_code)
        baselines.append(baseline)
        timings.append(elapsed)
        del api

    dump = module.dump_contracts_file
    module.dump_contracts_file = lambda contracts: None
    without_file = min(download(module, master, probe_code)[0] for _ in range(args.runs))
    module.dump_contracts_file = dump

    gc.collect()
    tracemalloc.start()
    before = tracemalloc.get_traced_memory()[0]
    _, api = download(module, master, probe_code)
    api.session = None
    gc.collect()
    held = tracemalloc.get_traced_memory()[0] - before
    tracemalloc.stop()

    best, base = min(timings), min(baselines)
    print("contracts                   {:>10,} in {} pages of {:,}".format(count, pages, PAGE_SIZE))
    print("download to fetched, best   {:>10.3f} s   (median {:.3f} s over {} runs)".format(
        best, statistics.median(timings), args.runs))
    print("  of which contracts file   {:>10.3f} s".format(best - without_file))
    print("baseline: decode the pages  {:>10.3f} s".format(base))
    print("ratio download / baseline   {:>10.2f}".format(best / base))
    print("memory held per contract    {:>10.0f} bytes".format(held / count))
    print("python", sys.version.split()[0])


if __name__ == "__main__":
    main()
