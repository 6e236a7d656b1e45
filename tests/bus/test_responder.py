"""Services on the bus written in Python (and the C++ echo service)."""

import threading
import time

import pytest

import pymqlink
from pymqlink import BusError

from .helpers import Recorder, wait_until


def test_reply_later_from_another_thread(client, responder):
    pending = []
    responder.serve("svc/later", lambda topic, payload, info: pending.append(info))

    def answer():
        assert wait_until(lambda: pending)
        info = pending[0]
        assert info.replied is False
        assert info.reply({"status": {"status_code": 200}, "topic": info.topic}) is True
        assert info.reply({"again": True}) is False
        assert info.replied is True

    helper = threading.Thread(target=answer)
    helper.start()
    assert client.request("svc/later", {"q": 1}, timeout=2000) == {
        "status": {"status_code": 200},
        "topic": "svc/later",
    }
    helper.join()


def test_request_info_names_the_sender_but_never_shows_the_token(client, responder):
    infos = []
    responder.serve("svc/who", lambda topic, payload, info: infos.append(info) or {})
    client.set_session("tok-HIDDEN")
    client.set_client_name("PYAPI/Z9")
    assert client.request("svc/who", {}) == {}
    info = infos[0]
    assert (info.topic, info.token, info.client_name, info.session_id) == (
        "svc/who",
        "tok-HIDDEN",
        "PYAPI/Z9",
        client.session_id,
    )
    assert "HIDDEN" not in repr(info) and "PYAPI/Z9" in repr(info)


@pytest.mark.parametrize(
    "handler, logged_text",
    [
        (
            lambda topic, payload, info: 1 / 0,
            "responder handler for topic 'svc/bad' raised ZeroDivisionError",
        ),
        (
            lambda topic, payload, info: {"when": object()},
            "reply['when']: cannot encode object of type object",
        ),
    ],
)
def test_failing_handlers_are_logged_and_send_no_reply(client, responder, logged, handler, logged_text):
    responder.serve("svc/bad", handler)
    assert client.request("svc/bad", {}, timeout=100) is None
    assert wait_until(lambda: any(logged_text in r for r in logged))


def test_inline_responder_runs_on_the_requesting_thread(host, client):
    threads = []
    with pymqlink.Responder(host, inline=True) as fast:
        fast.serve(
            "svc/fast", lambda topic, payload, info: threads.append(threading.get_ident()) or {"ok": 1}
        )
        assert client.request("svc/fast", {}) == {"ok": 1}
    assert threads == [threading.get_ident()]


def test_exact_topics_win_and_stop_serving_falls_back(client, responder, host):
    responder.serve("api/v1/>", lambda topic, payload, info: {"by": "general"})
    with pymqlink.Responder(host) as special:
        special.serve("api/v1/login", lambda topic, payload, info: {"by": "login"})
        assert client.request("api/v1/login", {}) == {"by": "login"}
        special.stop_serving("api/v1/login")
        assert client.request("api/v1/login", {}) == {"by": "general"}


def test_watcher_learns_when_topics_gain_and_lose_subscribers(connect, responder):
    changes = Recorder()
    responder.watch_subscriptions(changes)
    client = connect()
    client.subscribe("TIC/v1/STK/*/TSE/2330")
    assert changes.wait(1)
    assert responder.has_subscribers("TIC/v1/STK/9/TSE/2330")
    client.unsubscribe("TIC/v1/STK/*/TSE/2330")
    assert changes.wait(2)
    assert changes.calls == [("TIC/v1/STK/*/TSE/2330", True), ("TIC/v1/STK/*/TSE/2330", False)]
    assert not responder.has_subscribers("TIC/v1/STK/9/TSE/2330")
    assert threading.get_ident() not in changes.threads


def test_closed_responder_refuses_work(host):
    responder = pymqlink.Responder(host)
    responder.close()
    responder.close()
    with pytest.raises(BusError, match="is closed"):
        responder.publish("t", {})
    with pytest.raises(TypeError, match="serve expects a callable"):
        pymqlink.Responder(host).serve("svc", 5)


def test_cpp_echo_service_returns_the_payload(host, client):
    echo = pymqlink.EchoService(host, "echo/>")
    try:
        payload = {"a": [1, 2.5, "x", None, b"\x00"], "b": {"c": True}}
        assert client.request("echo/1", payload) == payload
    finally:
        echo.close()


def test_many_threads_share_one_client(client, responder):
    responder.serve("svc/double", lambda topic, payload, info: {"n": payload["n"] * 2})
    wrong = []

    def work(base):
        for i in range(50):
            reply = client.request("svc/double", {"n": base + i})
            if reply != {"n": 2 * (base + i)}:
                wrong.append((base + i, reply))

    threads = [threading.Thread(target=work, args=(k * 1000,)) for k in range(4)]
    start = time.monotonic()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert wrong == []
    assert time.monotonic() - start < 10
