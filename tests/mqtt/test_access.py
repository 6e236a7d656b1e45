"""Mosquitto with a password file and the access list of tests/mqtt/config/acl: a person trades
as usual, and another cannot read their reports or replies, serve their requests, or publish
quotes or reports."""

import subprocess
import threading
from pathlib import Path

import pytest

from quorvex import Client
from quorvex.cli.connection import replay_config
from quorvex.paper import DEMO, PaperBroker

from .conftest import Mosquitto, _free_port

ACL = Path(__file__).parent / "config" / "acl"
PASSWORDS = {"broker": "broker-pw", "alice": "alice-pw", "mallory": "mallory-pw"}


@pytest.fixture
def secured(tmp_path):
    passwords = tmp_path / "passwords"
    passwords.write_text("")
    for user, password in PASSWORDS.items():
        subprocess.run(["mosquitto_passwd", "-b", str(passwords), user, password], check=True)
    broker = Mosquitto(
        tmp_path, ["allow_anonymous false", "password_file {}".format(passwords), "acl_file {}".format(ACL)]
    )
    yield broker
    broker.stop()


def _mallory(command, host, *args):
    port = host.rsplit(":", 1)[1]
    return [
        command,
        "-V",
        "5",
        "-h",
        "127.0.0.1",
        "-p",
        port,
        "-u",
        "mallory",
        "-P",
        PASSWORDS["mallory"],
        *args,
    ]


def test_one_person_cannot_read_or_forge_anothers_traffic(secured):
    reports = []
    reported = threading.Event()
    with PaperBroker(replay_config()) as paper:
        paper.attach(secured.host, vpn="qv", user="broker", password=PASSWORDS["broker"])
        spy = subprocess.Popen(
            _mallory("mosquitto_sub", secured.host, "-v", "-W", "8", "-t", "qv/inbox/#", "-t", "qv/reply/#",
                     "-t", "qv/req/#", "-t", "$share/x/qv/req/#"),
            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )  # fmt: skip
        with Client(secured.host, vpn="qv", bus_user="alice", bus_password=PASSWORDS["alice"]) as alice:
            alice.login_api_key(DEMO.api_key, DEMO.api_secret)
            alice.use_demo_certificate()
            alice.on_order(lambda event: reports.append(event) or reported.set())
            stock = alice.contract("2330")
            alice.buy(stock, stock.limit_down, 1)
            assert reported.wait(10) and reports[0].ok

            inbox = "qv/inbox/{}/ORDER".format(alice.api.session.session_id)
            for topic in (
                inbox,
                "qv/pub/TIC/v1/STK/*/TSE/2330",
                "qv/reply/{}".format(alice.api.session.session_id),
            ):
                forge = _mallory("mosquitto_pub", secured.host, "-q", "1", "-t", topic, "-m", "forged")
                subprocess.run(forge, check=False, capture_output=True, timeout=10)
            alice.api.session.request("api/v1/auth/error_tracking", {}, timeout=2000)  # a round trip after
            assert len(reports) == 1
        out, _ = spy.communicate(timeout=15)
    assert out == b""  # mallory read nothing


@pytest.mark.parametrize(
    "who,host_of",
    [
        ("wrong password", lambda broker: broker.host),
        ("unknown user", lambda broker: broker.host),
        ("nobody listening", lambda broker: "mqtt://127.0.0.1:{}".format(_free_port())),
    ],
)
def test_a_refused_or_unreachable_connection_names_the_host_never_the_password(secured, who, host_of):
    from pymqlink import BusError, SolClient

    host = host_of(secured)
    user = "nobody" if who == "unknown user" else "alice"
    client = SolClient()
    with pytest.raises(BusError) as refused:
        client.connect(
            host=host, vpn="qv", user=user, password="s3cret-word", clientname="t", connect_timeout_ms=2000
        )
    assert host in str(refused.value) and "s3cret-word" not in str(refused.value)
