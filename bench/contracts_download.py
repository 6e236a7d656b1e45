"""Contract master download over the in-process bus: 100,000 contracts in pages of 5,000.

    PYTHONPATH=python python bench/contracts_download.py [--contracts N] [--runs R]

A Python service on `inproc://` (a `pymqlink.Responder` on its worker thread) answers every
page request with a page built up front, as the broker would serve it; the api's session is a
real `SolClient` on the same bus. The clock runs from `fetch_all_contract()` to the container
marked fetched, the contracts file written, and one contract looked up by code.

The baseline, measured in the same run, is what the bus cannot avoid in one process: encoding
the same page replies to msgpack and decoding them back into dicts, without bus or api; the
figure to watch is the ratio. Memory per contract is measured in a separate pass with
tracemalloc, so that tracing does not slow the timed runs.
"""

from __future__ import annotations

import argparse
import gc
import os
import statistics
import sys
import tempfile
import threading
import time
import tracemalloc

import pymqlink
from quorvex.constant import FetchStatus, SecurityType

HOST = "inproc://bench-contracts"
PAGE_SIZE = 5000
# Share of the master per security type; every type gets at least one page.
SHARES = {
    SecurityType.Index: 0.05,
    SecurityType.Stock: 0.40,
    SecurityType.Future: 0.20,
    SecurityType.Option: 0.35,
}


def synthetic_contract(security_type: SecurityType, n: int) -> dict[str, object]:
    code = f"{security_type.value}{n:06d}"
    row = {
        "security_type": security_type.value,
        "code": code,
        "symbol": "S" + code,
        "name": "Contract " + code,
        "unit": 1000,
        "limit_up": 110.0,
        "limit_down": 90.0,
        "reference": 100.0,
        "update_date": "2026/11/20",
    }
    if security_type in (SecurityType.Index, SecurityType.Stock):
        row.update(exchange="TSE", category="24", day_trade="Yes")
    else:
        row.update(
            exchange="TAIFEX",
            category="TXF",
            delivery_month="202612",
            delivery_date="2026/12/16",
            underlying_kind="I",
            multiplier=200,
        )
    if security_type is SecurityType.Option:
        row.update(strike_price=18000.0 + n, option_right="C")
    return row


def build_master(total: int) -> dict[SecurityType, list[dict]]:
    """Replies per type: index 0 is the probe, index p is data page p."""
    master = {}
    for security_type, share in SHARES.items():
        count = max(PAGE_SIZE, int(total * share) // PAGE_SIZE * PAGE_SIZE)
        pages = -(-count // PAGE_SIZE)
        replies = [
            {
                "status": {"status_code": 200},
                "response": {"contracts": [], "security_type": security_type.value, "max_page": pages},
            }
        ]
        for page in range(pages):
            rows = [
                synthetic_contract(security_type, n)
                for n in range(page * PAGE_SIZE, min((page + 1) * PAGE_SIZE, count))
            ]
            replies.append(
                {
                    "status": {"status_code": 200},
                    "response": {"contracts": rows, "security_type": security_type.value, "max_page": pages},
                }
            )
        master[security_type] = replies
    return master


def serve(master):
    """The contract service: answers each page request with its prepared page."""
    service = pymqlink.Responder(HOST, client_name="contract-service")
    service.serve(
        "api/v1/data/contracts",
        lambda topic, payload, info: master[SecurityType(payload["security_type"])][payload["page"]],
    )
    return service


def download(module, probe_code):
    api = module.SolaceAPI(HOST, "vpn", "user", "password", False)
    api.set_event_callback(lambda *event: None)  # the printing default would announce every connect
    api.session.connect(HOST, "vpn", "user", "password", "PYAPI/BENCH")
    written = threading.Event()
    dump = module.dump_contracts_file

    def dump_and_tell(contracts):
        dump(contracts)
        written.set()

    module.dump_contracts_file = dump_and_tell
    try:
        start = time.perf_counter()
        api.fetch_all_contract(cb=None)
        if not written.wait(60):
            raise RuntimeError("the download did not complete")
        while api.Contracts.status != FetchStatus.Fetched:  # set right after the file is written
            time.sleep(0)
        found = api.Contracts.Stocks[probe_code]
        elapsed = time.perf_counter() - start
    finally:
        module.dump_contracts_file = dump
        api.session.disconnect()
    assert found.code == probe_code
    return elapsed, api


def encode_decode(master):
    start = time.perf_counter()
    pages = [pymqlink.unpackb(pymqlink.packb(reply)) for replies in master.values() for reply in replies[1:]]
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
    probe_code = f"{SecurityType.Stock.value}{1234:06d}"
    pages = sum(len(replies) - 1 for replies in master.values())

    service = serve(master)
    try:
        timings, baselines = [], []
        for _ in range(args.runs):
            gc.collect()
            baseline, count = encode_decode(master)
            elapsed, api = download(module, probe_code)
            baselines.append(baseline)
            timings.append(elapsed)
            del api

        dump = module.dump_contracts_file
        module.dump_contracts_file = lambda contracts: None
        without_file = min(download(module, probe_code)[0] for _ in range(args.runs))
        module.dump_contracts_file = dump

        gc.collect()
        tracemalloc.start()
        before = tracemalloc.get_traced_memory()[0]
        _, _api = download(module, probe_code)
        gc.collect()
        held = tracemalloc.get_traced_memory()[0] - before
        tracemalloc.stop()
    finally:
        service.close()

    best, base = min(timings), min(baselines)
    print(f"contracts                   {count:>10,} in {pages} pages of {PAGE_SIZE:,}")
    median = statistics.median(timings)
    print(f"download to fetched, best   {best:>10.3f} s   (median {median:.3f} s over {args.runs} runs)")
    print(f"  of which contracts file   {best - without_file:>10.3f} s")
    print(f"baseline: encode + decode   {base:>10.3f} s")
    print(f"ratio download / baseline   {best / base:>10.2f}")
    print(f"memory held per contract    {held / count:>10.0f} bytes")
    print("python", sys.version.split()[0])


if __name__ == "__main__":
    main()
