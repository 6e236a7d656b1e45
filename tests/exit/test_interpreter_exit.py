"""Leaving the interpreter while daemon threads are inside the library: the process ends with
status 0, never an abort from a thread the interpreter ends inside C++ frames."""

import os
import subprocess
import sys
import textwrap

import pytest

RUNS = int(os.environ.get("QV_EXIT_RUNS", "3"))

SCENARIO = textwrap.dedent(
    """
    import sys, threading, time
    from quorvex import Client
    from quorvex.paper import DEMO

    client = Client.paper("exit", market_start="09:00", clock_speed=10, progress=False)
    client.login_api_key(DEMO.api_key, DEMO.api_secret)
    client.use_demo_certificate()
    stock = client.contract("2330")

    def place():  # each order is signed, placed and answered
        while True:
            try:
                client.buy(stock, stock.limit_down, 1)
            except Exception:
                pass

    for _ in range(2):
        threading.Thread(target=place, daemon=True).start()
    time.sleep(float(sys.argv[1]))
    """
)


@pytest.mark.parametrize("run", range(RUNS))
def test_exit_with_orders_being_signed_and_placed_on_daemon_threads(tmp_path, run):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p))
    env["QUORVEX_CONTRACTS_DIR"] = str(tmp_path)
    done = subprocess.run(
        [sys.executable, "-c", SCENARIO, str(0.1 + 0.15 * (run % 4))],
        capture_output=True, text=True, env=env, timeout=120,
    )  # fmt: skip
    assert done.returncode == 0, done.stderr[-2000:]
