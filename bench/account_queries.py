"""Blocking money queries through SolaceAPI against a bare request of the same payload.

Run: PYTHONPATH=python python bench/account_queries.py [CALLS]

`margin` and `account_balance` on the embedded paper broker, CALLS calls each (default 2,000),
blocking. The baseline is a bare `SolClient.request` of the same payload on the same topic to
the same broker from the same session, measured in the same run: the ratio is what the query
adds on top of the round trip (the payload, the placeholder record, the reply handler and the
record filled through `lazy_setter`). A second table times `lazy_setter` on a filled reply
against the assignment of each field in turn, which it replaced. Best of three rounds.
"""

import sys
import time

from quorvex.backend.solace.api import SolaceAPI
from quorvex.constant import FetchStatus
from quorvex.data import AccountBalance, Margin
from quorvex.paper import DEMO

ROUNDS = 3


def best(run, count):
    """Calls per second of the best round."""
    best_s = float("inf")
    for _ in range(ROUNDS):
        started = time.perf_counter()
        run(count)
        best_s = min(best_s, time.perf_counter() - started)
    return count / best_s


def per_assignment(record, fields):
    for name, value in fields.items():
        setattr(record, name, value)
    record.status = FetchStatus.Fetched


def main(calls):
    api = SolaceAPI("paper://bench-accounts", "vpn", "user", "password", False)
    api.token_login(DEMO.api_key, DEMO.api_secret, True, 30000)
    stock = next(a for a in api.list_accounts() if a.account_type.value == "S")
    futures = next(a for a in api.list_accounts() if a.account_type.value == "F")
    rows = []
    for name, account, topic in (
        ("account_balance", stock, api.account_balance_topic),
        ("margin", futures, api.margin_topic),
    ):
        query = getattr(api, name)
        payload = account.dict()
        bare = best(
            lambda n, t=topic, p=payload: [api.session.request(t, p, timeout=5000) for _ in range(n)], calls
        )
        rate = best(lambda n, q=query, a=account: [q(a) for _ in range(n)], calls)
        rows.append((name + " (blocking)", rate, bare))

    balance = api.account_balance(stock).dict()
    margin = api.margin(futures).dict()
    fills = []
    for cls, fields in ((AccountBalance, balance), (Margin, margin)):
        fields = {k: v for k, v in fields.items() if k != "status"}
        new = best(
            lambda n, c=cls, f=fields: [c(status=FetchStatus.Fetching).lazy_setter(**f) for _ in range(n)],
            calls * 5,
        )
        old = best(
            lambda n, c=cls, f=fields: [per_assignment(c(status=FetchStatus.Fetching), f) for _ in range(n)],
            calls * 5,
        )
        fills.append((cls.__name__, new, old))
    api.logout()

    print("| query | calls/s | bare request/s | query time / bare time |")
    print("|---|---|---|---|")
    for name, rate, bare in rows:
        print("| {} | {:,.0f} | {:,.0f} | {:.2f}x |".format(name, rate, bare, bare / rate))
    print()
    print("| record filled | lazy_setter/s | per assignment/s | speed-up |")
    print("|---|---|---|---|")
    for name, new, old in fills:
        print("| {} | {:,.0f} | {:,.0f} | {:.1f}x |".format(name, new, old, new / old))


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 2000)
