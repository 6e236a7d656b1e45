"""A small scripted broker written in Python, and the records the end-to-end tests share.

The broker serves every "api/v1/..." topic: a login of PERSON succeeds with a stock and a
futures account, every other service answers from a script.
"""

from __future__ import annotations

from typing import Any

import pymqlink
from quorvex.account import FutureAccount, StockAccount
from quorvex.contracts import Future, Stock

PERSON = "A123456789"
PASSWORD = "s3cret-pw"
CLIENT_NAME = "PYAPI/A123456789/SVC01"

STOCK_ACCOUNT = StockAccount(person_id=PERSON, broker_id="9A95", account_id="0512345", signed=True)
FUTURES_ACCOUNT = FutureAccount(person_id=PERSON, broker_id="F002000", account_id="1234567", signed=True)
STOCK = STOCK_ACCOUNT.dict()
FUTURES = FUTURES_ACCOUNT.dict()
TSMC = Stock(exchange="TSE", code="2330", name="TSMC")
TXF = Future(exchange="TAIFEX", code="TXFL6")

# Quote contents as the feed publishes them (one trade of TSMC, one of the December TAIEX future).
AT = 1704157201500000  # 2024-01-02 09:00:01.5 Taipei time, in microseconds since the epoch
# fmt: off
STOCK_TICK = [
    "2330", AT, 590.0, 595.0, 596.0, 589.0, 593.27, 1785000.0, 4155000000.0, 3, 7004, 1, 2, 2.0, 0.34,
    3500, 3504, 812, 790, 0, 0, False, False,
]
FOP_TICK = [
    "TXFL6", AT, 17800.0, 17790.5, 1200, 1300, 17805.2, 17810.0, 17820.0, 17790.0, 3562000.0, 1.2e9, 2,
    5000, 1, 2, 10.0, 0.06, False,
]
# fmt: on


def ok(**response: Any) -> dict[str, Any]:
    return {"status": {"status_code": 200}, "response": response}


class Broker:
    """The service side: answers `api/v1/>` from `script` (a reply, or a function of payload and
    request info). Unscripted services reply status 200, no data."""

    def __init__(self, host: str):
        self.responder = pymqlink.Responder(host, client_name="broker")
        login = ok(accounts=[STOCK, FUTURES], token="tok-e2e-0001", client_name=CLIENT_NAME)
        self.script: dict[str, Any] = {"auth/login": login}
        self.responder.serve("api/v1/>", self._handle)

    def answer(self, service: str, reply: Any) -> None:
        self.script[service] = reply

    def _handle(self, topic: str, payload: Any, info: Any) -> dict[str, Any] | None:
        reply = self.script.get(topic[len("api/v1/") :], ok())
        return reply(payload, info) if callable(reply) else reply
