"""Quote feed throughput: the paper broker's live ticks reaching their Python handlers through
SolaceAPI at a combined rate, with no loss, and how late they arrive.

Run: PYTHONPATH=python python bench/feed_throughput.py [--rate 200000] [--contracts 1000] [--seconds 2]

Two runs, each on an embedded broker of its own whose market opens at 09:00 and runs fast enough
for the subscribed stocks to trade at the target rate (the speed comes from their trade counts of
the previous day):

- "one by one": the `--contracts` busiest stocks, each stock's typed ticks subscribed with
  `SolaceAPI.subscribe`, as a client does;
- "one filter": every stock through a single wildcard subscription ("TIC/v1/STK/*/*/>"), the
  same combined rate: what the feed and the client carry when the bus routes each message once.

The handler only keeps what it is given. After the measured window the stocks are
unsubscribed and the queue drained, then:

- loss: for every stock, the ticks received against the broker's own history of that stretch;
- delivery latency: when a tick reached its handler against when the market clock reached it
  (its time stamp mapped back to real time through the market's start and speed); median and
  99th percentile;
- baseline, measured in this run: building the same number of TickSTKv1 records from the same
  contents in a tight loop (no feed, bus or routing); the ratio is the delivered rate over it.
"""

import argparse
import datetime
import os
import statistics
import tempfile
import time
import uuid

from quorvex.backend.solace.api import SolaceAPI
from quorvex.backend.solace.tick import TickSTKv1
from quorvex.constant import FetchStatus, QuoteType, QuoteVersion, TicksQueryType
from quorvex.contracts import Stock
from quorvex.paper import DEMO

DAY, PREVIOUS_DAY = "2026-01-05", "2026-01-02"
CONTINUOUS_SECONDS = 4 * 3600 + 25 * 60  # 09:00 to 13:25
MICROSECOND = datetime.timedelta(microseconds=1)
EPOCH = datetime.datetime(1970, 1, 1)
OPENING_WALL_NS = (datetime.datetime(2026, 1, 5, 9, 0) - EPOCH) // MICROSECOND * 1000
TAIPEI_NS = 8 * 3600 * 10**9
ALL_STOCKS = "TIC/v1/STK/*/*/>"


# The benchmark's contract master stays out of the user's cache.
os.environ.setdefault("QUORVEX_CONTRACTS_DIR", tempfile.mkdtemp(prefix="quorvex-bench-"))

# Each stock's market, so that every stock is subscribed where its quotes are published.
EXCHANGES = {}


def logged_in(host):
    api = SolaceAPI(host, "vpn", "bench", "unused", True)
    api.set_event_callback(lambda *args: None)
    api.login(DEMO.person_id, DEMO.password)
    return api


def trades_of_previous_day():
    """Each stock's number of trades on the previous day, busiest first, and its market."""
    api = logged_in("paper://feed-bench-probe")
    quotes = api.daily_quotes(datetime.date.fromisoformat(PREVIOUS_DAY), False)
    api.fetch_all_contract()
    deadline = time.monotonic() + 30
    while api.Contracts.status != FetchStatus.Fetched and time.monotonic() < deadline:
        time.sleep(0.01)
    for code in quotes.Code:
        EXCHANGES[code] = api.Contracts.Stocks[code].exchange
    api.logout()
    return sorted(zip(quotes.Transaction, quotes.Code), reverse=True)


def wall_ns(tick):
    """A record's Taipei wall-clock time in nanoseconds, as history time stamps count it."""
    return (tick.datetime - EPOCH) // MICROSECOND * 1000


def time_of_day(ns):
    seconds = ns // 10**9 % 86400
    return f"{seconds // 3600:02d}:{seconds // 60 % 60:02d}:{seconds % 60:02d}"


def run(name, codes, trades, rate, seconds, one_filter):
    speed = rate / (trades / CONTINUOUS_SECONDS)
    host = f"paper://feed-bench-{uuid.uuid4().hex[:6]}?clock_speed={speed:.3f}&market_start={DAY}T09:00"
    api = SolaceAPI(host, "vpn", "bench", "unused", True)
    api.set_event_callback(lambda *args: None)
    started_ns = time.time_ns()  # the market clock starts while this login connects
    api.login(DEMO.person_id, DEMO.password)

    received = []
    keep, clock = received.append, time.time_ns
    api.set_on_tick_stk_v1_callback(lambda exchange, tick: keep((clock(), tick)))
    contracts = [Stock(code=code, exchange=EXCHANGES[code]) for code in codes]

    def subscription(action):
        if one_filter:
            getattr(api.session, action)(ALL_STOCKS)
            return
        for contract in contracts:
            getattr(api, action)(contract, QuoteType.Tick, False, QuoteVersion.v1)

    subscription("subscribe")
    window_start = time.time_ns()
    time.sleep(seconds)
    window_end = time.time_ns()
    subscription("unsubscribe")
    unsubscribed = time.time_ns()
    while True:  # what was published before the unsubscriptions is still on its way
        before = len(received)
        time.sleep(0.2)
        if len(received) == before:
            break
    drained = (time.time_ns() - unsubscribed) / 1e9 - 0.2

    # Loss: each stock's ticks between its first and last received, against the broker's history.
    by_code = {}
    for _, tick in received:
        by_code.setdefault(tick.code, []).append(wall_ns(tick))
    missing = 0
    for code, got in by_code.items():
        first, last = min(got), max(got)
        history = api.ticks(
            Stock(code=code, exchange=EXCHANGES[code]),
            DAY,
            TicksQueryType.RangeTime,
            time_of_day(first),
            time_of_day(last + 10**9),
        )
        missing += sum(1 for ts in history.ts if first <= ts <= last) - len(got)
    api.logout()

    in_window = sum(1 for recv, _ in received if window_start <= recv <= window_end)
    delivered_rate = in_window / ((window_end - window_start) / 1e9)
    latencies = sorted(
        recv - (started_ns + (wall_ns(tick) - OPENING_WALL_NS) / speed) for recv, tick in received
    )
    return {
        "name": name,
        "stocks": len(codes),
        "speed": speed,
        "received": len(received),
        "rate": delivered_rate,
        "missing": missing,
        "median_ms": statistics.median(latencies) / 1e6,
        "p99_ms": latencies[int(0.99 * (len(latencies) - 1))] / 1e6,
        "drained_s": drained,
        "contents": [tick.to_content() for _, tick in received[:200_000]],
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rate", type=float, default=200_000, help="combined ticks per second")
    parser.add_argument("--contracts", type=int, default=1000, help="stocks subscribed one by one")
    parser.add_argument("--seconds", type=float, default=2.0, help="measured window, real time")
    args = parser.parse_args()

    ranked = trades_of_previous_day()
    busiest = ranked[: args.contracts]
    runs = [
        run(
            "one by one", [c for _, c in busiest], sum(t for t, _ in busiest), args.rate, args.seconds, False
        ),
        run("one filter", [c for _, c in ranked], sum(t for t, _ in ranked), args.rate, args.seconds, True),
    ]

    # Baseline: the same records built from the same contents, and nothing else.
    contents = runs[0]["contents"] + runs[1]["contents"]
    build = TickSTKv1.from_content
    start = time.perf_counter()
    for content in contents:
        build(*content)
    baseline = len(contents) / (time.perf_counter() - start)

    print(
        f"target {args.rate:,.0f} ticks/s; baseline (TickSTKv1.from_content alone) {baseline:,.0f} records/s"
    )
    print(
        "| Run | Stocks | Market speed | Delivered ticks/s | Delivered / baseline | Lost | "
        "Latency median ms | p99 ms | Drained after s |"
    )
    print("|---|---|---|---|---|---|---|---|---|")
    for r in runs:
        print(
            f"| {r['name']} | {r['stocks']:,} | {r['speed']:,.0f}x | {r['rate']:,.0f} | "
            f"{r['rate'] / baseline:.3f} | "
            f"{r['missing']} | {r['median_ms']:.1f} | {r['p99_ms']:.1f} | {r['drained_s']:.2f} |"
        )


if __name__ == "__main__":
    main()
