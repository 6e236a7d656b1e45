"""Published messages into a no-op Python callback, on the in-process bus.

Run:  PYTHONPATH=python python bench/bus_publish.py [--messages N]

A C++ publisher queues N quote-sized messages while the session's callback thread is held; then
the callback thread is let go and timed while it decodes each message into a dict and calls a
no-op Python callback (one core: the publisher is done before the clock starts). The rate is
compared with decoding the same messages in C++ alone (the baseline), measured in the same run.
"""

import argparse
import threading
import time

import pymqlink

QUOTE = {
    "content": [
        "2330",
        "2024-03-05 09:01:02.123456",
        580.0,
        2,
        1,
        580.0,
        579.0,
        12345,
        7159500.0,
        -1.5,
        0.26,
        3,
        False,
    ]
}


def run_once(client, host, count, payload):
    holding, release, done = threading.Event(), threading.Event(), threading.Event()

    def on_p2p(topic, msg):
        if topic == "HOLD":
            holding.set()
            release.wait()
        else:
            done.set()

    client.set_p2p_callback(on_p2p)
    with pymqlink.Responder(host) as marker:
        # Point-to-point messages keep arrival order with published ones: HOLD stops the callback
        # thread before the burst, END marks its end.
        marker.send_p2p(client.session_id, "HOLD", {})
        holding.wait()
        pymqlink._core._publish_burst(host, "TIC/v1/STK/1/TSE/2330", payload, count)
        marker.send_p2p(client.session_id, "END", {})
    start = time.perf_counter()
    release.set()
    if not done.wait(60):
        raise RuntimeError("the burst was not delivered within 60 s")
    return count / (time.perf_counter() - start)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--messages", type=int, default=300000)
    args = parser.parse_args()

    host = "inproc://bench-publish"
    payload = pymqlink.packb(QUOTE)
    client = pymqlink.SolClient()
    client.connect(host, "vpn", "user", "pw", "BENCH")
    client.set_msg_callback(lambda topic, msg: None)
    client.subscribe("TIC/v1/STK/*/TSE/>")
    try:
        run_once(client, host, 20000, payload)  # warm up
        delivered = max(run_once(client, host, args.messages, payload) for _ in range(3))
    finally:
        client.disconnect()
    decoded = args.messages / pymqlink._core._decode_burst(payload, args.messages)

    print(f"message: {len(payload)} bytes, {args.messages} per run, best of 3")
    print(f"{'':36}{'messages/s':>14}{'ratio':>8}")
    print(f"{'C++ decode alone (baseline)':36}{decoded:14,.0f}{1.0:8.2f}")
    print(f"{'delivered to a Python callback':36}{delivered:14,.0f}{delivered / decoded:8.2f}")


if __name__ == "__main__":
    main()
