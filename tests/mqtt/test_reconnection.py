"""A session over MQTT when its broker restarts: requests fail at once while the link is down,
the events say what happened, and the session goes on with its inbox."""

import threading

import pytest

from pymqlink import BusError
from quorvex import Client
from quorvex.cli.connection import replay_config
from quorvex.paper import DEMO, PaperBroker

from .conftest import Mosquitto


@pytest.mark.parametrize("persistence", [False, True], ids=["session-lost", "session-kept"])
def test_a_restarted_broker_is_survived(tmp_path, persistence):
    mosquitto = Mosquitto(tmp_path, ["allow_anonymous true"], persistence=persistence)
    events, reports = [], []
    lost, reconnected, reported = threading.Event(), threading.Event(), threading.Event()
    try:
        with PaperBroker(replay_config()) as broker:
            broker.attach(mosquitto.host, vpn="qv")
            with Client(
                mosquitto.host, vpn="qv", reconnect_retries=40, reconnect_retry_wait_ms=250
            ) as client:
                client.login_api_key(DEMO.api_key, DEMO.api_secret)
                client.use_demo_certificate()
                flags = {"reconnecting": lost, "reconnected": reconnected}

                @client.on_event
                def seen(event):
                    events.append(event)
                    if event.name in flags:
                        flags[event.name].set()

                client.on_order(lambda event: reports.append(event) or reported.set())

                mosquitto.stop()
                assert lost.wait(10), events
                with pytest.raises(BusError, match="reconnecting"):
                    client.api.session.request("api/v1/portfolio/settlement", {}, timeout=2000)
                mosquitto.start()
                assert reconnected.wait(20), events
                assert [e.name for e in events][:: len(events) - 1] == ["reconnecting", "reconnected"]
                assert ("did not keep the session" in events[-1].info) is not persistence

                # The broker's own link comes back on its own schedule; wait until it answers.
                session = client.api.session
                assert any(session.request("api/v1/auth/error_tracking", {}, timeout=500) for _ in range(20))
                stock = client.contract("2330")
                trade = client.buy(stock, stock.limit_down, 1)
                # Over MQTT a report may come before the placement's reply; the trade takes it either way.
                assert reported.wait(10) and reports[0].ok
                assert trade.order.id == reports[0].order_id
    finally:
        mosquitto.stop()
