"""Contract master intake: 100,000 contracts in 20 pages of 5,000, then a code lookup.

Run: PYTHONPATH=python python bench/contract_master.py
Prints seconds and ratios against the baseline (a plain dict from code to raw contract built
from the same pages), all measured in this process and run.
"""

import time

from quorvex.constant import SecurityType
from quorvex.contracts import Contracts, Future, get_product_contracts

PAGES, PAGE_SIZE, ROUNDS = 20, 5000, 3


def make_pages():
    return [
        [
            {
                "security_type": "FUT",
                "exchange": "TAIFEX",
                "code": "F%06d" % n,
                "symbol": "TXF%06d" % n,
                "category": "TX%d" % (n % 60),
                "name": "future",
                "delivery_month": "202612",
                "limit_up": 110.0,
                "limit_down": 90.0,
                "reference": 100.0,
                "unit": 1,
                "update_date": "2024/01/02",
            }
            for n in range(page * PAGE_SIZE, (page + 1) * PAGE_SIZE)
        ]
        for page in range(PAGES)
    ]


def best_of(run):
    times = []
    for _ in range(ROUNDS):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return min(times)


def baseline(pages):
    index = {}
    for page in pages:
        for raw in page:
            index[raw["code"]] = raw
    return index["F012345"]


def contract_master(pages):
    master = Contracts()
    page_class = get_product_contracts(SecurityType.Future)
    for page in pages:
        master.Futures.append(page_class(page))
    return master.Futures["F012345"]


def eager_records(pages):
    index = {}
    for page in pages:
        for raw in page:
            index[raw["code"]] = Future(**raw)
    return index["F012345"]


def main():
    pages = make_pages()
    base = best_of(lambda: baseline(pages))
    print("baseline (plain dict by code): %.3f s" % base)
    for name, run in (
        ("Contracts append + lookup", contract_master),
        ("a record per contract up front", eager_records),
    ):
        spent = best_of(lambda run=run: run(pages))
        print("%-32s %.3f s  ratio %.1f" % (name, spent, spent / base))


if __name__ == "__main__":
    main()
