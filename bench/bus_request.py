"""Blocking request/reply round trip on the in-process bus: Python caller, C++ echo service.

Run:  PYTHONPATH=python python bench/bus_request.py [--rounds N]

Reports the median and 99th percentile of one round trip, beside the cost of encoding and
decoding the same payload without the bus (the baseline), and their ratio.
"""

import argparse
import statistics
import time

import pymqlink

PAYLOAD = {
    "account": {"account_type": "S", "person_id": "A123456789", "broker_id": "9A95", "account_id": "1234567"},
    "contract": {"code": "2330", "exchange": "TSE"},
    "n": 1,
}


def timed(fn, rounds):
    samples = []
    clock = time.perf_counter_ns
    for _ in range(rounds):
        start = clock()
        fn()
        samples.append(clock() - start)
    samples.sort()
    return statistics.median(samples) / 1000.0, samples[int(len(samples) * 0.99)] / 1000.0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=20000)
    args = parser.parse_args()

    host = "inproc://bench-request"
    client = pymqlink.SolClient()
    client.connect(host, "vpn", "user", "pw", "BENCH")
    results = {}
    try:
        baseline = timed(lambda: pymqlink.unpackb(pymqlink.packb(PAYLOAD)), args.rounds)
        for label, inline in (("inline echo", True), ("worker-thread echo", False)):
            echo = pymqlink.EchoService(host, "bench/echo", inline=inline)
            try:
                timed(lambda: client.request("bench/echo", PAYLOAD, timeout=1000), 1000)  # warm up
                results[label] = timed(
                    lambda: client.request("bench/echo", PAYLOAD, timeout=1000), args.rounds
                )
            finally:
                echo.close()
    finally:
        client.disconnect()

    print(f"payload: {len(pymqlink.packb(PAYLOAD))} bytes, {args.rounds} rounds")
    print(f"{'':32}{'median us':>12}{'p99 us':>10}{'median / baseline':>20}")
    print(f"{'encode+decode baseline':32}{baseline[0]:12.2f}{baseline[1]:10.2f}{1.0:20.1f}")
    for label, (median, p99) in results.items():
        print(f"{'round trip, ' + label:32}{median:12.2f}{p99:10.2f}{median / baseline[0]:20.1f}")


if __name__ == "__main__":
    main()
