"""SolClient as the api uses it: connect, requests, callbacks, events, disconnect."""

import gc
import inspect
import os
import re
import subprocess
import sys
import threading
import time
import weakref

import pytest

from pymqlink import BusError, SolClient, _core

from .helpers import Recorder, wait_until


@pytest.fixture
def echo(responder):
    """Replies with the payload; what the service learns of the sender is the responder's test."""
    seen = []
    responder.serve(
        "svc/>", lambda topic, payload, info: seen.append((topic, payload)) or {"payload": payload}
    )
    return seen


# ---- connection ----


def test_new_client_is_not_connected_and_repr_hides_secrets(connect):
    fresh = SolClient()
    assert fresh.sol is False
    assert fresh._token == ""
    assert repr(fresh) == "<SolClient not connected>"
    client = connect("PYAPI/A123")
    client.set_session("tok-SECRET")
    assert client.sol is True
    assert client._token == "tok-SECRET"
    text = repr(client)
    assert "PYAPI/A123" in text and "SECRET" not in text and "s3cret-pw" not in text


# Which hosts and settings the bus refuses, and with what text, is the core's test; here the
# errors become the interpreter's own.
def test_bad_host_raises_bus_error_naming_it():
    client = SolClient()
    with pytest.raises(BusError) as caught:
        client.connect("nosuch://user:pw@x", "vpn", "user", "pw", "PYAPI/X")
    assert str(caught.value).startswith("cannot connect to host 'nosuch://***@x'")
    assert isinstance(caught.value, ConnectionError)
    assert client.sol is False


def test_invalid_settings_are_value_errors(host):
    with pytest.raises(ValueError, match=re.escape("reconnect_retries must be -1 (forever) or more, got -2")):
        SolClient().connect(host, "vpn", "user", "pw", "PYAPI/X", reconnect_retries=-2)


def test_disconnect_is_idempotent_and_ends_sol(client):
    client.disconnect()
    client.disconnect()
    assert client.sol is False


def test_work_on_a_client_that_is_not_connected_is_refused():
    client = SolClient()
    with pytest.raises(BusError, match="the session is not connected; call connect"):
        client.request("svc/x", {})
    with pytest.raises(BusError, match="not connected"):
        client.subscribe("a/b")


def test_reqids_are_fresh_text():
    client = SolClient()
    ids = {client._gen_reqid() for _ in range(100)}
    assert len(ids) == 100 and all(isinstance(i, str) for i in ids)


# ---- requests ----


def test_timeout_returns_none_and_the_default_timeout_applies(client, responder):
    responder.serve("svc/silent", lambda topic, payload, info: None)
    start = time.monotonic()
    assert client.request("svc/silent", {}, timeout=50) is None
    assert client.request("svc/nobody", {}, timeout=50) is None
    assert time.monotonic() - start >= 0.1
    client.default_timeout = 30
    start = time.monotonic()
    assert client.request("svc/silent", {}) is None
    assert time.monotonic() - start < 2.0
    with pytest.raises(ValueError, match="default_timeout must be positive"):
        client.default_timeout = 0


# The tests of SolaceAPI drive a fake session; it must take what the real one takes and block
# exactly when the real one blocks, or those tests prove nothing.
SESSION_METHODS = [
    "connect", "disconnect", "request", "_gen_reqid", "subscribe", "unsubscribe", "set_session",
    "set_client_name", "set_msg_callback", "set_p2p_callback", "set_event_callback",
    "set_session_down_callback",
]  # fmt: skip


@pytest.mark.parametrize("name", SESSION_METHODS)
def test_the_fake_session_takes_what_the_real_one_takes(name):
    from conftest import FakeSession

    (text, _, defaults), *_ = getattr(SolClient, name).__nb_signature__
    real = {}  # name -> default (or the empty marker), in order
    for part in text[text.index("(") + 1 : text.rindex(") ->")].split(", ")[1:]:
        default = re.search(r"= \\(\d+)$", part)
        real[re.match(r"\w+", part).group()] = (
            defaults[int(default[1])] if default else inspect.Parameter.empty
        )
    fake = inspect.signature(getattr(FakeSession, name)).parameters
    assert {p: v.default for p, v in list(fake.items())[1:]} == real


@pytest.mark.parametrize("timeout", [..., None, 0, 2000], ids=["left-out", "None", "0", "2000"])
def test_a_false_timeout_is_non_blocking_in_the_real_and_the_fake_session(client, echo, timeout):
    from conftest import FakeSession

    kwargs = {} if timeout is ... else {"timeout": timeout}
    cb = Recorder()
    blocks = timeout is ... or bool(timeout)
    real = client.request("svc/t", {"n": 1}, cb=cb, **kwargs)
    assert (real is not None) == blocks
    if not blocks:
        cb.wait(1)
    fake = FakeSession().request("svc/t", {"n": 1}, cb=cb, **kwargs)
    assert (fake is not None) == blocks


def test_async_reply_runs_cb_on_the_callback_thread(client, echo):
    cb = Recorder()
    assert client.request("svc/a", {"x": 1}, corrid="c-7", timeout=0, cb=cb) is None
    assert client.request("svc/b", {"x": 2}, timeout=0, cb=cb) is None
    assert cb.wait(2)
    (topic1, corrid1, reply1), (topic2, corrid2, reply2) = cb.calls
    assert (topic1, corrid1, reply1["payload"]) == ("svc/a", "c-7", {"x": 1})
    assert topic2 == "svc/b" and isinstance(corrid2, str) and corrid2 and reply2["payload"] == {"x": 2}
    assert threading.get_ident() not in cb.threads
    assert len(cb.threads) == 1


def test_blocking_request_inside_a_callback_completes(client, responder, echo):
    results = []
    client.set_p2p_callback(
        lambda topic, state: results.append(client.request("svc/nested", state, timeout=2000))
    )
    responder.send_p2p(client.session_id, "ORDER", {"n": 1})
    assert wait_until(lambda: results)
    assert results[0]["payload"] == {"n": 1}


class Unencodable:
    pass


def test_unencodable_payload_raises_and_sends_nothing(client, echo):
    with pytest.raises(TypeError) as caught:
        client.request("svc/order", {"order": {"price": Unencodable()}})
    assert str(caught.value) == "payload['order']['price']: cannot encode object of type Unencodable"
    with pytest.raises(TypeError):
        client.request("svc/order", {"orders": [1, Unencodable()]}, timeout=0, cb=print)
    time.sleep(0.05)
    assert echo == []


@pytest.mark.parametrize(
    "kwargs, error, message",
    [
        ({"timeout": -1}, ValueError, "timeout must be zero or more milliseconds, got -1"),
        ({"timeout": "5"}, TypeError, "timeout must be a number of milliseconds, got str"),
        ({"timeout": 0, "cb": 3}, TypeError, "cb must be callable or None, got int"),
        ({"timeout": 0, "corrid": 5}, TypeError, "corrid must be str or None, got int"),
    ],
)
def test_invalid_request_arguments(client, kwargs, error, message):
    with pytest.raises(error, match=re.escape(message)):
        client.request("svc/x", {}, **kwargs)


def test_invalid_topics_are_value_errors(client):
    with pytest.raises(ValueError, match="wildcard level"):
        client.request("svc/*/x", {})
    with pytest.raises(ValueError, match="'>' may only end a filter"):
        client.subscribe("a/>/b")


# ---- delivery (wildcards, ordering and point-to-point routing are the core's, tested there) ----


def test_raising_callback_is_logged_and_delivery_goes_on(client, responder, logged):
    def flaky(topic, msg):
        password = "hunter2-SECRET"  # a local on the failing line: its value must not reach the log
        if msg["n"] == 0:
            raise ZeroDivisionError("boom in handler" + password[:0])
        seen.append(msg["n"])

    seen = []
    client.set_msg_callback(flaky)
    client.subscribe("feed")
    for n in range(3):
        responder.publish("feed", {"n": n})
    assert wait_until(lambda: seen == [1, 2])
    errors = [r for r in logged if "boom in handler" in r]
    assert len(errors) == 1
    assert "message callback for topic 'feed'" in errors[0]
    assert "Traceback" in errors[0] and "in flaky" in errors[0]
    assert "hunter2" not in errors[0]


def test_callbacks_can_be_replaced_and_cleared(client, responder):
    first, second = Recorder(), Recorder()
    client.subscribe("feed")
    client.set_msg_callback(first)
    responder.publish("feed", {"n": 1})
    assert first.wait(1)
    client.set_msg_callback(second)
    responder.publish("feed", {"n": 2})
    assert second.wait(1)
    client.set_msg_callback(None)
    responder.publish("feed", {"n": 3})
    time.sleep(0.05)
    assert len(first.calls) == 1 and len(second.calls) == 1
    with pytest.raises(TypeError, match="set_msg_callback expects a callable or None, got int"):
        client.set_msg_callback(3)


def test_disconnect_with_callbacks_in_flight_returns_promptly(client, responder):
    started = threading.Event()

    def slow(topic, msg):
        started.set()
        time.sleep(0.05)

    client.set_msg_callback(slow)
    client.subscribe("feed")
    for n in range(100):
        responder.publish("feed", {"n": n})
    assert started.wait(2)
    start = time.monotonic()
    client.disconnect()
    # 100 queued callbacks take 5 s; disconnect waits for the running one at most.
    assert time.monotonic() - start < 1.5
    assert client.sol is False


def test_disconnect_from_inside_a_callback_does_not_hang(client, responder):
    done = threading.Event()

    def stop(topic, msg):
        client.disconnect()
        done.set()

    client.set_msg_callback(stop)
    client.subscribe("feed")
    responder.publish("feed", {})
    assert done.wait(2)
    assert client.sol is False


# ---- session events (the first, "connected", is checked through SolaceAPI in tests/e2e) ----


def test_lost_link_reconnects_then_goes_down_when_the_bus_is_gone(connect, bus_name, responder):
    events, down = Recorder(), Recorder()
    client = connect(reconnect_retries=3, reconnect_retry_wait=5)
    client.set_event_callback(events)
    client.set_session_down_callback(down)
    msgs = Recorder()
    client.set_msg_callback(msgs)
    client.subscribe("feed")

    assert _core._inproc_sever(bus_name, client.session_id)
    # The "connected" event may or may not come after the callback was set.
    assert wait_until(
        lambda: [c[3] for c in events.calls if c[3] != "connected"] == ["reconnecting", "reconnected"]
    )
    responder.publish("feed", {"after": "reconnect"})
    assert msgs.wait(1)

    _core._inproc_shutdown(bus_name)
    try:
        assert down.wait(1)
        assert down.calls == [()]
        codes = [c[1] for c in events.calls]
        assert codes[-2:] == [1, 3]  # reconnecting, down
        assert "shut down" in events.calls[-1][2]
        assert client.sol is True
        with pytest.raises(BusError, match="the session is down"):
            client.request("svc/x", {})
    finally:
        _core._inproc_shutdown(bus_name, down=False)


# ---- lifetime ----


def test_client_in_a_reference_cycle_through_its_callback_is_collected(host):
    class Api:
        def __init__(self):
            self.session = SolClient()
            self.session.set_msg_callback(self.on_msg)
            self.session.connect(host, "vpn", "user", "pw", "PYAPI/GC")

        def on_msg(self, topic, msg):
            pass

    api = Api()
    ref = weakref.ref(api)
    del api
    gc.collect()
    assert ref() is None


EXIT_SCRIPT = r"""
import atexit, sys, threading, time
import pymqlink

host = "inproc://exit-test"
responder = pymqlink.Responder(host)
responder.serve("svc/x", lambda topic, payload, info: {"ok": True})
client = pymqlink.SolClient()
client.connect(host, "vpn", "user", "pw", "PYAPI/EXIT")
seen = []

def on_msg(topic, msg):
    seen.append(msg)
    time.sleep(0.001)
    if sys.argv[1] == "request-in-callback":
        client.request("svc/x", {}, timeout=1000)

client.set_msg_callback(on_msg)
client.subscribe("feed")
# An exit hook that still uses the session, registered after pymqlink's own (so it runs first).
atexit.register(lambda: client.request("svc/x", {}, timeout=1000))

def flood():
    while True:
        responder.publish("feed", {"n": 1})

threading.Thread(target=flood, daemon=True).start()
while len(seen) < 50:
    time.sleep(0.001)
print("exiting", flush=True)
"""


@pytest.mark.parametrize("mode", ["plain", "request-in-callback"])
def test_process_exit_with_deliveries_in_flight_does_not_hang(mode):
    result = subprocess.run(
        [sys.executable, "-c", EXIT_SCRIPT, mode],
        capture_output=True,
        text=True,
        check=False,
        timeout=30,
        env=dict(os.environ),
    )
    assert result.returncode == 0, result.stderr[-2000:]
    assert "exiting" in result.stdout
