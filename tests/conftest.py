"""Shared fixtures: a recording fake session for the api module's own tests."""

import datetime
import itertools
import threading
import types
from typing import Any, Callable, Dict, List, Optional

import pytest


def ok(response: Any = None, **status: Any) -> Dict[str, Any]:
    """A reply with status 200 and the given response."""
    return {"status": dict({"status_code": 200}, **status), "response": {} if response is None else response}


def refused(status_code: int, detail: str = "", **response: Any) -> Dict[str, Any]:
    return {"status": {"status_code": status_code}, "response": dict({"detail": detail}, **response)}


class Request:
    """One request as the fake session received it."""

    def __init__(self, topic, payload, corrid, timeout, cb):
        self.topic, self.payload, self.corrid, self.timeout, self.cb = topic, payload, corrid, timeout, cb

    def __repr__(self):
        return "Request(%r, corrid=%r, timeout=%r)" % (self.topic, self.corrid, self.timeout)


class FakeSession:
    """Stands in for pymqlink.SolClient: records every call and answers from a script.

    Replies are scripted per topic with `reply(topic, resp)` (a dict, or a callable taking
    the Request); unscripted topics get `ok()`. Blocking requests return the reply; non-blocking
    ones queue it until `deliver()` runs the handler, as the messaging thread would.
    """

    DEFAULT_TIMEOUT = 5000

    def __init__(self):
        self.calls: List[tuple] = []
        self.requests: List[Request] = []
        self.pending: List[tuple] = []
        self.scripted: Dict[str, Any] = {}
        self.sol = False
        self._token = ""
        self.client_name: Optional[str] = None
        self.subscriptions: List[str] = []
        self.callbacks: Dict[str, Callable] = {}
        self._ids = itertools.count(1)
        self.lock = threading.Lock()

    # -- scripting and inspection -------------------------------------------------
    def reply(self, topic: str, resp: Any) -> None:
        self.scripted[topic] = resp

    def topics(self) -> List[str]:
        return [r.topic for r in self.requests]

    def last(self, topic: Optional[str] = None) -> Request:
        matching = [r for r in self.requests if topic is None or r.topic == topic]
        assert matching, "no request on %s; sent: %s" % (topic, self.topics())
        return matching[-1]

    def deliver(self) -> None:
        """Runs the queued non-blocking replies' handlers in arrival order."""
        while self.pending:
            topic, corrid, resp, cb = self.pending.pop(0)
            cb(topic, corrid, resp)

    def _answer(self, request: Request) -> Any:
        resp = self.scripted.get(request.topic, ok())
        return resp(request) if callable(resp) else resp

    # -- the session interface ----------------------------------------------------
    def _gen_reqid(self) -> str:
        return "corr-%d" % next(self._ids)

    def connect(
        self,
        host,
        vpn,
        user,
        password,
        clientname,
        connect_timeout_ms=3000,
        reconnect_retries=10,
        keep_alive_ms=3000,
        reconnect_retry_wait=3000,
        keep_alive_limit=3,
    ):
        kwargs = dict(locals())
        del kwargs["self"]
        self.calls.append(("connect", kwargs))
        self.sol = True

    def disconnect(self):
        self.calls.append(("disconnect",))
        self.sol = False

    def request(self, topic, payload, corrid=None, timeout=..., cb=None):
        # As the real session: left out, the default wait; a false timeout is non-blocking.
        if timeout is ...:
            timeout = self.DEFAULT_TIMEOUT
        req = Request(topic, payload, corrid, timeout, cb)
        self.requests.append(req)
        self.calls.append(("request", topic))
        resp = self._answer(req)
        if timeout:
            return resp
        self.pending.append((topic, corrid, resp, cb))
        return None

    def set_session(self, token):
        self.calls.append(("set_session", token))
        self._token = token

    def set_client_name(self, name):
        self.calls.append(("set_client_name", name))
        self.client_name = name

    def subscribe(self, topic):
        self.calls.append(("subscribe", topic))
        self.subscriptions.append(topic)

    def unsubscribe(self, topic):
        self.calls.append(("unsubscribe", topic))
        self.subscriptions.remove(topic)

    def _set(kind):
        def setter(self, f):
            self.calls.append((kind, f))
            self.callbacks[kind] = f

        return setter

    set_msg_callback = _set("set_msg_callback")
    set_p2p_callback = _set("set_p2p_callback")
    set_event_callback = _set("set_event_callback")
    set_session_down_callback = _set("set_session_down_callback")
    del _set


@pytest.fixture
def api_module(monkeypatch):
    """The compiled api module with SolClient replaced by the recording fake."""
    import quorvex.backend.solace.api as module

    monkeypatch.setattr(module, "SolClient", FakeSession)
    # Instances register logout as an exit hook; keep test instances out of the real one.
    monkeypatch.setattr(module, "atexit", _ExitHooks())
    return module


class _ExitHooks:
    def __init__(self):
        self.registered = []

    def register(self, func):
        self.registered.append(func)
        return func


def freeze_clock(monkeypatch, module, utc_now):
    """Gives `module` a `datetime` whose clock stands at `utc_now` (an aware time)."""

    class Frozen(datetime.datetime):
        @classmethod
        def now(cls, tz=None):
            return utc_now.astimezone(tz) if tz else utc_now.replace(tzinfo=None)

    names = dict(date=datetime.date, timedelta=datetime.timedelta, timezone=datetime.timezone)
    monkeypatch.setattr(module, "datetime", types.SimpleNamespace(datetime=Frozen, **names))


def make_api(module, simulation=False, **kwargs):
    return module.SolaceAPI("inproc://test", "vpn", "bus-user", "bus-secret", simulation, **kwargs)


@pytest.fixture
def warnings(api_module, monkeypatch):
    """What the api module gives its logger's `warning` (the refusals in simulation)."""
    seen = []
    monkeypatch.setattr(api_module, "logger", types.SimpleNamespace(warning=seen.append))
    return seen


@pytest.fixture
def api(api_module):
    return make_api(api_module)


@pytest.fixture
def sim_api(api_module):
    return make_api(api_module, simulation=True)
