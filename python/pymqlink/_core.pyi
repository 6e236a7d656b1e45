"""Sessions, services and the wire codec of the message bus (extension module)."""

from typing import Any, Callable, Optional, Union

from typing_extensions import Self, TypeAlias

Payload: TypeAlias = Any

class BusError(ConnectionError):
    """The bus could not do what was asked: unknown scheme, unreachable host, session not connected."""

def packb(obj: Payload) -> bytes:
    """Encode `obj` as msgpack, the way payloads travel.

    dict (str keys), list, tuple, str, int (64-bit), float, bool, None, bytes; enumeration members
    as their value; datetime.datetime as "%Y-%m-%d %H:%M:%S" (".%f" added when it has
    microseconds), datetime.date as "%Y-%m-%d", datetime.time as "%H:%M:%S", decimal.Decimal as
    its text. Raises TypeError/OverflowError/ValueError naming the path of the offending value.
    """

def unpackb(data: Union[bytes, bytearray, memoryview]) -> Payload:
    """Decode msgpack into dict, list, str, int, float, bool, None and bytes; ValueError if malformed."""

class SolClient:
    """A session on the message bus. Constructing it connects nothing."""

    def __init__(self) -> None: ...
    @property
    def sol(self) -> bool:
        """True from a successful connect() until disconnect()."""
    @property
    def _token(self) -> str:
        """The session token that every request carries (set_session)."""
    @property
    def client_name(self) -> str: ...
    @property
    def session_id(self) -> str:
        """Unique id of the current connection on its bus; empty before the first connect."""
    default_timeout: int
    """Milliseconds a request waits when it is given no timeout (5000)."""

    def connect(
        self,
        host: str,
        vpn: str,
        user: str,
        password: str,
        clientname: str,
        connect_timeout_ms: int = 3000,
        reconnect_retries: int = 10,
        keep_alive_ms: int = 3000,
        reconnect_retry_wait: int = 3000,
        keep_alive_limit: int = 3,
    ) -> None:
        """Connect to `host` (scheme://address); an open session is disconnected first.

        BusError naming the host when the scheme is unknown or the host unreachable;
        ValueError for invalid settings. Emits the "connected" event.
        """
    def disconnect(self) -> None:
        """Close the session. Returns promptly, also with callbacks in flight; nothing is delivered after."""
    def request(
        self,
        topic: str,
        payload: Payload,
        corrid: Optional[str] = None,
        timeout: Optional[Union[int, float]] = ...,
        cb: Optional[Callable[[str, str, Any], Any]] = None,
    ) -> Optional[Any]:
        """Send `payload` on `topic` with the session token and client name.

        timeout > 0 (left out: default_timeout, 5000 ms): waits with the interpreter lock
        released (unless the reply is already there when the send returns, as from a service
        that answers on the sender's thread) and returns the decoded reply, or None when none
        came in time. A false timeout (0 or None): returns None at once and later calls
        cb(topic, corrid, reply) on the callback thread (corrid defaults to a fresh
        _gen_reqid()). An unencodable payload raises before anything is sent; a session that
        is not connected raises BusError.
        """
    def _gen_reqid(self) -> str:
        """A fresh correlation id, unique within this session object."""
    def subscribe(self, topic: str) -> None:
        """Subscribe to a topic filter: "*" matches one level, a final ">" one or more levels."""
    def unsubscribe(self, topic: str) -> None: ...
    def set_msg_callback(self, f: Optional[Callable[[str, Any], Any]]) -> None:
        """f(topic, msg) for every published message matching a subscription."""
    def set_p2p_callback(self, f: Optional[Callable[[str, Any], Any]]) -> None:
        """f(topic, state) for every point-to-point message to this session."""
    def set_event_callback(self, f: Optional[Callable[[int, int, str, str], Any]]) -> None:
        """f(resp_code, event_code, info, event) for session events (codes in docs/protocol.md)."""
    def set_session_down_callback(self, f: Optional[Callable[[], Any]]) -> None:
        """f() once the session is down after every reconnect attempt failed."""
    def set_session(self, token: str) -> None:
        """Install the session token carried by every later request ("" clears it)."""
    def set_client_name(self, name: str) -> None:
        """Change the client name; point-to-point messages address sessions by it."""

class RequestInfo:
    """Who sent a request, and the way to answer it later."""

    topic: str
    token: str
    client_name: str
    session_id: str
    @property
    def replied(self) -> bool: ...
    def reply(self, msg: Payload) -> bool:
        """Send the reply (once; later calls return False). Usable from any thread."""

class Responder:
    """A service endpoint on the bus."""

    def __init__(self, host: str, client_name: str = "responder", inline: bool = False) -> None:
        """Handlers run on the responder's worker thread, or with inline=True on the requesting thread."""
    @property
    def session_id(self) -> str: ...
    def serve(self, topic_filter: str, handler: Callable[[str, Any, RequestInfo], Optional[Payload]]) -> None:
        """handler(topic, payload, info) returns the reply, or None to reply later with info.reply()."""
    def stop_serving(self, topic_filter: str) -> None: ...
    def publish(self, topic: str, msg: Payload) -> None: ...
    def send_p2p(self, target: str, topic: str, msg: Payload) -> int:
        """Send to the session with id `target`, else to every session named `target`.

        Returns how many sessions got it."""
    def watch_subscriptions(self, watcher: Optional[Callable[[str, bool], Any]]) -> None:
        """watcher(filter, active) when a filter gains its first subscriber or loses its last."""
    def has_subscribers(self, topic: str) -> bool: ...
    def close(self) -> None: ...
    def __enter__(self) -> Self: ...
    def __exit__(self, *args: object) -> None: ...

class EchoService:
    """A C++ service that replies with each request's payload (benchmarks and tests)."""

    def __init__(self, host: str, topic_filter: str, inline: bool = True) -> None: ...
    def close(self) -> None: ...

def _publish_burst(host: str, topic: str, payload: bytes, count: int) -> float: ...
def _decode_burst(payload: bytes, count: int) -> float: ...
def _inproc_sever(bus_name: str, session_id: str) -> bool: ...
def _inproc_shutdown(bus_name: str, down: bool = True) -> None: ...
def _close_all() -> None: ...
