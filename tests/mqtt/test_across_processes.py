"""The paper broker as its own process on an MQTT 5 broker, and the command line reaching it
from other processes: the same run as on the embedded broker, over the network."""

import os
import re
import signal
import subprocess
import sys

import pytest

from quorvex.paper import PaperBroker, PaperBrokerConfig


def _cli(folder, *args):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p))
    env["QUORVEX_CONTRACTS_DIR"] = str(folder / "contracts")
    env.pop("QUORVEX_SECRET_KEY", None)
    return [sys.executable, "-m", "quorvex.cli", *args], env


@pytest.fixture
def broker_process(mosquitto, tmp_path):
    command, env = _cli(tmp_path, "broker", "--host", mosquitto.host, "--no-color")
    process = subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    first = process.stdout.readline()
    assert "listening on " + mosquitto.host in first, first + process.stderr.read()
    yield process
    if process.poll() is None:
        process.kill()
        process.wait()


def test_demo_and_lookups_reach_a_broker_in_another_process(mosquitto, broker_process, tmp_path):
    command, env = _cli(tmp_path, "demo", "--host", mosquitto.host, "--seconds", "2", "--no-color")
    demo = subprocess.run(command, env=env, capture_output=True, text=True, timeout=120)
    assert demo.returncode == 0, demo.stdout[-3000:] + demo.stderr[-2000:]
    finished = re.search(
        r"Demo finished in .*: (\d+) ticks, (\d+) bid/asks, (\d+) order reports", demo.stdout
    )
    assert finished and all(int(n) > 0 for n in finished.groups()), demo.stdout[-2000:]

    command, env = _cli(tmp_path, "contracts", "2330", "--host", mosquitto.host, "--no-color")
    lookup = subprocess.run(command, env=env, capture_output=True, text=True, timeout=120)
    assert lookup.returncode == 0 and "2330" in lookup.stdout, lookup.stdout + lookup.stderr

    broker_process.send_signal(signal.SIGTERM)
    assert broker_process.wait(timeout=20) == 0
    assert "Paper broker stopped." in broker_process.stdout.read()


@pytest.fixture
def network_broker(mosquitto):
    with PaperBroker(PaperBrokerConfig.demo()) as broker:
        broker.attach(mosquitto.host, vpn="env-a")
        yield broker


def _client(mosquitto, vpn):
    from pymqlink import SolClient

    client = SolClient()
    client.connect(host=mosquitto.host, vpn=vpn, user="", password="", clientname="t")
    return client


def test_environments_sharing_one_broker_do_not_meet(mosquitto, network_broker):
    """The vpn is a topic prefix: a session of another environment finds no service."""
    stranger = _client(mosquitto, "env-b")
    neighbour = _client(mosquitto, "env-a")
    try:
        assert stranger.request("api/v1/auth/token_login", {"msg": "x", "sign": "y"}, timeout=300) is None
        reply = neighbour.request("api/v1/auth/token_login", {"msg": "x", "sign": "y"}, timeout=5000)
        assert reply is not None and reply["status"]["status_code"] >= 400
    finally:
        stranger.disconnect()
        neighbour.disconnect()


@pytest.mark.parametrize("topic", ["quotes/+/x", "a/#", "Q/TSE/2330/#"])
def test_topics_mqtt_cannot_carry_are_refused(mosquitto, topic):
    client = _client(mosquitto, "env-a")
    try:
        with pytest.raises(ValueError, match="cannot"):
            client.subscribe(topic)
    finally:
        client.disconnect()


def test_a_payload_above_the_brokers_packet_limit_is_refused_before_sending(tmp_path):
    from .conftest import Mosquitto

    small = Mosquitto(tmp_path, ["allow_anonymous true", "max_packet_size 2000"])
    try:
        client = _client(small, "env-a")
        with pytest.raises(ValueError, match=r"larger than the MQTT broker .* accepts"):
            client.request("api/v1/order/place_order", {"blob": "x" * 5000}, timeout=1000)
        assert client.request("api/v1/order/place_order", {"small": 1}, timeout=200) is None  # still usable
        client.disconnect()
    finally:
        small.stop()
