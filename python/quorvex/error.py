"""Errors of the client library.

Every error the front object (``quorvex.Client``) raises is a ``QuorvexError``::

    QuorvexError
     +-- RequestTimeout         no reply in time (also a builtins.TimeoutError)
     |    '-- TimeoutError      the backend's own: a reservation query without a reply
     +-- ServiceError           the broker refused: status_code and detail
     |    +-- TokenError        the session token was refused (401)
     |    +-- SystemMaintenance the service is under maintenance (503)
     |    +-- LoginRefused      the credentials were refused
     |    '-- OrderRefused      an order or an order change was refused: sts_code and trade
     +-- CertificateError       no usable order-signing certificate
     +-- ConnectionLost         the link to the broker is down (also a builtins.ConnectionError)
     +-- ContractNotFound       a code the contract master does not list (also a LookupError)
     '-- NotInSimulation        a service a simulation session is not offered

Messages name the service topic and the status, never the payload: a payload may carry a
signature or other credentials.
"""

import builtins
from typing import Any, Dict, Optional, Tuple

__all__ = [
    "CertificateError",
    "ConnectionLost",
    "ContractNotFound",
    "LoginRefused",
    "NotInSimulation",
    "OrderRefused",
    "QuorvexError",
    "RequestTimeout",
    "ServiceError",
    "SystemMaintenance",
    "TimeoutError",
    "TokenError",
]


class QuorvexError(Exception):
    """The base of every error of the client library."""


class ServiceError(QuorvexError):
    """The broker's service refused a request: its status code and detail text."""

    def __init__(self, status_code: Any, detail: Any = "") -> None:
        self.status_code = status_code
        self.detail = "" if detail is None else str(detail)
        super().__init__(self._describe())

    def _describe(self) -> str:
        if not self.status_code:
            return "the service's reply carried no status code (expected 200 for success)"
        text = "the service refused the request with status {}".format(self.status_code)
        return text + ": " + self.detail if self.detail else text

    def __reduce__(self) -> Tuple[Any, Tuple[Any, ...]]:
        return (type(self), (self.status_code, self.detail))


class TokenError(ServiceError):
    """The session token was refused (status 401): log in again."""

    def _describe(self) -> str:
        text = "the session token was refused (status {}); log in again".format(self.status_code)
        return text + ": " + self.detail if self.detail else text


class SystemMaintenance(ServiceError):
    """The service is under maintenance (status 503): retry once it is back."""

    def _describe(self) -> str:
        text = "the service is under maintenance (status {}); retry later".format(self.status_code)
        return text + ": " + self.detail if self.detail else text


class LoginRefused(ServiceError):
    """The broker refused the credentials of a login (person id and password, or API key)."""

    def _describe(self) -> str:
        return "the broker refused the login (status {}): {}".format(
            self.status_code, self.detail or "no reason given"
        )


class OrderRefused(ServiceError):
    """The broker refused an order, a cancel or a change: ``sts_code`` is its reason code.

    ``trade`` is the trade concerned (for a refused placement: the trade marked ``Failed``,
    with the reason in ``trade.status.msg``), or None.
    """

    def __init__(self, status_code: Any, detail: Any = "", sts_code: Any = "", trade: Any = None) -> None:
        self.sts_code = "" if sts_code in (None, 0) else str(sts_code)
        self.trade = trade
        super().__init__(status_code, detail)

    def _describe(self) -> str:
        code = " {}".format(self.sts_code) if self.sts_code else ""
        return "the broker refused the order (status {}{}): {}".format(
            self.status_code, code, self.detail or "no reason given"
        )

    def __reduce__(self) -> Tuple[Any, Tuple[Any, ...]]:
        return (type(self), (self.status_code, self.detail, self.sts_code))


class RequestTimeout(QuorvexError, builtins.TimeoutError):
    """No reply arrived in time; the request may still have reached the broker."""


class TimeoutError(RequestTimeout):
    """No reply arrived for a request in time. ``payload`` is kept but never shown."""

    def __init__(self, topic: str, payload: Dict[str, Any]) -> None:
        self.topic = topic
        self.payload = payload
        super().__init__("no reply on topic {} before the time-out".format(topic))

    def __reduce__(self) -> Tuple[Any, Tuple[Any, ...]]:
        return (type(self), (self.topic, self.payload))


class CertificateError(QuorvexError):
    """No order-signing certificate is active for the person, or one did not activate."""


class ConnectionLost(QuorvexError, builtins.ConnectionError):
    """The link to the broker is down: log in again (a new session) to go on."""


class ContractNotFound(QuorvexError, LookupError):
    """The contract master has no contract of that code, symbol or product."""

    def __init__(self, code: str, hint: Optional[str] = None) -> None:
        self.code = code
        text = "unknown code {!r}: no stock, future, option or index has this code or symbol".format(code)
        self.hint = hint
        super().__init__(text + ("; " + hint if hint else ""))

    def __reduce__(self) -> Tuple[Any, Tuple[Any, ...]]:
        return (type(self), (self.code, self.hint))

    def __str__(self) -> str:
        # LookupError would show the quoted repr of the text.
        return str(self.args[0])


class NotInSimulation(QuorvexError):
    """The service is not offered to simulation sessions (log in without simulation)."""
