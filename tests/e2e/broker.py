"""A small scripted broker written in Python, and the records the end-to-end tests share.

The broker serves every "api/v1/..." topic: the three logins check their credentials the way
the real services do (MD5 digest, Ed25519 signature, session token), every other service answers
from a script, and every request is recorded with the token, client name and session id it
travelled with.
"""

from __future__ import annotations

import hashlib
import threading
from typing import Any, NamedTuple

import msgpack
from nacl.exceptions import BadSignatureError
from nacl.signing import SigningKey

import pymqlink
from quorvex.account import FutureAccount, StockAccount
from quorvex.contracts import Future, Stock

PERSON = "A123456789"
PASSWORD = "s3cret-pw"
TOKEN = "tok-e2e-0001"
SIM_TOKEN = "sim-e2e-0001"
CLIENT_NAME = "PYAPI/A123456789/SVC01"
PUBLIC_IP = "203.0.113.7"
API_KEY = "KEY-e2e-1"
API_SEED = bytes(range(32))

STOCK_ACCOUNT = StockAccount(person_id=PERSON, broker_id="9A95", account_id="0512345", signed=True)
FUTURES_ACCOUNT = FutureAccount(person_id=PERSON, broker_id="F002000", account_id="1234567", signed=True)
STOCK = STOCK_ACCOUNT.dict()
FUTURES = FUTURES_ACCOUNT.dict()
TSMC = Stock(exchange="TSE", code="2330", name="TSMC")
TXF = Future(exchange="TAIFEX", code="TXFL6")

# Quote contents as the feed publishes them (one trade of TSMC, one of the December TAIEX future).
AT = 1704157201500000  # 2024-01-02 09:00:01.5 Taipei time, in microseconds since the epoch
# fmt: off
STOCK_TRADE = [
    "2330", AT, 590.0, 595.0, 596.0, 589.0, 593.27, 1785000.0, 4155000000.0, 3, 7004, 1, 2, 2.0, 0.34,
    3500, 3504, 812, 790, 0, 0,
]
STOCK_TICK = STOCK_TRADE + [False, False]
FOP_TICK = [
    "TXFL6", AT, 17800.0, 17790.5, 1200, 1300, 17805.2, 17810.0, 17820.0, 17790.0, 3562000.0, 1.2e9, 2,
    5000, 1, 2, 10.0, 0.06, False,
]
# fmt: on

_B58 = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"


def b58encode(data: bytes) -> str:
    n = int.from_bytes(data, "big")
    text = ""
    while n:
        n, digit = divmod(n, 58)
        text = _B58[digit] + text
    return "1" * (len(data) - len(data.lstrip(b"\0"))) + text


def b58decode(text: str) -> bytes:
    n = 0
    for char in text:
        n = n * 58 + _B58.index(char)
    body = n.to_bytes((n.bit_length() + 7) // 8, "big")
    return b"\0" * (len(text) - len(text.lstrip("1"))) + body


def ok(**response: Any) -> dict[str, Any]:
    return {"status": {"status_code": 200}, "response": response}


def refused(status_code: int, detail: str) -> dict[str, Any]:
    return {"status": {"status_code": status_code}, "response": {"detail": detail}}


def logged_in(**extra: Any) -> dict[str, Any]:
    """The reply of a successful login of PERSON with a stock and a futures account."""
    return ok(
        accounts=[STOCK, FUTURES],
        token=TOKEN,
        client_name=CLIENT_NAME,
        ip_address=PUBLIC_IP,
        contract_download=True,
        **extra,
    )


class Seen(NamedTuple):
    service: str  # the topic without "api/v1/"
    payload: Any
    token: str
    client_name: str
    session_id: str


class Broker:
    """The service side: answers `api/v1/>` from `script` (a reply, or a function of payload and
    request info) and records every request. Unscripted services reply status 200, no data."""

    def __init__(self, host: str):
        self.responder = pymqlink.Responder(host, client_name="broker")
        self.seen: list[Seen] = []
        self._arrived = threading.Condition()
        self.script: dict[str, Any] = {
            "auth/login": self._password_login,
            "auth/token_login": self._token_login,
            "auth/simulation_login": self._simulation_login,
        }
        self.responder.serve("api/v1/>", self._handle)

    def answer(self, service: str, reply: Any) -> None:
        self.script[service] = reply

    def requests(self, service: str) -> list[Seen]:
        with self._arrived:
            return [seen for seen in self.seen if seen.service == service]

    def last(self, service: str, timeout: float = 2.0) -> Seen:
        with self._arrived:
            assert self._arrived.wait_for(lambda: self.requests(service), timeout), (
                f"no request on {service}; seen {[s.service for s in self.seen]}"
            )
            return self.requests(service)[-1]

    def _handle(self, topic: str, payload: Any, info: Any) -> dict[str, Any] | None:
        service = topic[len("api/v1/") :]
        with self._arrived:
            self.seen.append(Seen(service, payload, info.token, info.client_name, info.session_id))
            self._arrived.notify_all()
        reply = self.script.get(service, ok())
        return reply(payload, info) if callable(reply) else reply

    @staticmethod
    def _password_login(payload: Any, info: Any) -> dict[str, Any]:
        if (
            payload["person_id"] == PERSON
            and payload["password"] == hashlib.md5(PASSWORD.encode()).hexdigest()
        ):
            return logged_in(web_token="web-e2e")
        return refused(401, "wrong password")

    @staticmethod
    def _token_login(payload: Any, info: Any) -> dict[str, Any]:
        document = b58decode(payload["msg"])
        try:
            SigningKey(API_SEED).verify_key.verify(document, b58decode(payload["sign"]))
        except BadSignatureError:
            return refused(401, "bad signature")
        if msgpack.unpackb(document)["key"] != API_KEY:
            return refused(401, "unknown key")
        return logged_in(person_id=PERSON)

    @staticmethod
    def _simulation_login(payload: Any, info: Any) -> dict[str, Any]:
        return logged_in() if info.token == SIM_TOKEN else refused(401, "token expired")
