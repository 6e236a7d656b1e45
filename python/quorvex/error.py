"""Errors of the client library.

Messages name the service topic and the status, never the payload: a payload may carry a
signature or other credentials.
"""

import builtins
from typing import Any, Dict, Tuple

__all__ = ["ServiceError", "SystemMaintenance", "TimeoutError", "TokenError"]


class ServiceError(Exception):
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


class TimeoutError(builtins.TimeoutError):
    """No reply arrived for a request in time. ``payload`` is kept but never shown."""

    def __init__(self, topic: str, payload: Dict[str, Any]) -> None:
        self.topic = topic
        self.payload = payload
        super().__init__("no reply on topic {} before the time-out".format(topic))

    def __reduce__(self) -> Tuple[Any, Tuple[Any, ...]]:
        return (type(self), (self.topic, self.payload))
