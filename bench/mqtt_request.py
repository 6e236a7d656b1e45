"""Request/reply over MQTT 5 on loopback, against libmosquitto alone, in the same run.

Run:  PYTHONPATH=python python bench/mqtt_request.py [--rounds N] [--baseline PATH]

Starts its own Mosquitto on a free loopback port. Measures (1) the median blocking round trip
of `SolClient.request` to a C++ echo service through it, against the same round trip made by
bench/mqtt_bare_request.cpp with libmosquitto and nothing else (target: at most 1.2x); and
(2) blocking `place_order` of SolaceAPI to the paper broker through it, against (1)'s round trip
with the order's payload (target: at least 0.8x its rate).
"""

import argparse
import getpass
import glob
import os
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import pymqlink
from quorvex.backend.solace.api import SolaceAPI
from quorvex.cli.connection import replay_config
from quorvex.contracts import Stock
from quorvex.order import Order
from quorvex.paper import DEMO, PaperBroker

PAYLOAD = {
    "account": {"account_type": "S", "person_id": "A123456789", "broker_id": "9A95", "account_id": "1234567"},
    "contract": {"code": "2330", "exchange": "TSE"},
    "n": 1,
}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def median_us(fn, rounds):
    samples = []
    for _ in range(rounds):
        start = time.perf_counter_ns()
        fn()
        samples.append(time.perf_counter_ns() - start)
    return statistics.median(samples) / 1000.0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5000)
    found = sorted(glob.glob("build/*/cpp/bus/mqtt_bare_request"))
    parser.add_argument("--baseline", default=found[0] if found else None)
    args = parser.parse_args()
    if not args.baseline:
        sys.exit("no mqtt_bare_request built; run scripts/dev build")

    folder = tempfile.mkdtemp()
    port = free_port()
    conf = os.path.join(folder, "m.conf")
    with open(conf, "w") as out:
        lines = ["user " + getpass.getuser(), "listener {} 127.0.0.1".format(port), "allow_anonymous true",
                 "persistence false", "set_tcp_nodelay true"]  # fmt: skip
        out.write("\n".join(lines) + "\n")
    mosquitto = subprocess.Popen(
        [shutil.which("mosquitto") or "/usr/sbin/mosquitto", "-c", conf], stderr=subprocess.DEVNULL
    )
    time.sleep(0.5)
    host = "mqtt://127.0.0.1:{}".format(port)
    try:
        size = len(pymqlink.packb(PAYLOAD))
        command = [args.baseline, "127.0.0.1", str(port), str(args.rounds), str(size)]
        bare = subprocess.run(command, capture_output=True, text=True, check=True).stdout.split()
        bare_us = float(bare[0])

        client = pymqlink.SolClient()
        client.connect(host, "", "", "", "BENCH")  # the echo service has no topic prefix
        echo = pymqlink.EchoService(host, "bench/echo", inline=False)
        median_us(lambda: client.request("bench/echo", PAYLOAD, timeout=2000), 300)
        ours_us = median_us(lambda: client.request("bench/echo", PAYLOAD, timeout=2000), args.rounds)

        with PaperBroker(replay_config()) as broker:
            broker.attach(host, vpn="bench")
            api = SolaceAPI(host, "bench", "", "", False)
            # The second demo person's accounts take unsigned orders: signing has its own cost.
            api.login(DEMO.second.person_id, DEMO.second.password)
            api.set_order_callback(lambda state, report: None)
            api.prepare_ca = lambda order: order
            stock = Stock(exchange="TSE", code="2330")
            order = Order(
                action="Buy", price=900, quantity=1, account=api.default_stock_account, order_type="IOC"
            )
            payload = {"contract": stock.dict(), "order": order.dict()}
            order_rounds = max(200, args.rounds // 5)
            bare_order_us = median_us(
                lambda: client.request("bench/echo", payload, timeout=2000), order_rounds
            )
            place_us = median_us(lambda: api.place_order(stock, order), order_rounds)
            api.logout()
        echo.close()
        client.disconnect()
    finally:
        mosquitto.terminate()
        mosquitto.wait()
        shutil.rmtree(folder, ignore_errors=True)

    print("| round trip over mqtt:// | median us | ratio |")
    print("|---|---|---|")
    print("| libmosquitto alone, {} bytes | {:.1f} | 1.00x |".format(size, bare_us))
    print(
        "| SolClient.request to a C++ echo | {:.1f} | {:.2f}x (target <= 1.2x) |".format(
            ours_us, ours_us / bare_us
        )
    )
    print("| SolClient.request, the order's payload | {:.1f} | 1.00x |".format(bare_order_us))
    print(
        "| SolaceAPI.place_order to the paper broker | {:.1f} | rate {:.2f}x (target >= 0.8x) |".format(
            place_us, bare_order_us / place_us
        )
    )


if __name__ == "__main__":
    main()
