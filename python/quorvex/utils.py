"""Helpers shared by the client library: its logger and the mapping of refusals to errors."""

import logging
from typing import Any, Optional

from quorvex.error import ServiceError, SystemMaintenance, TokenError

__all__ = ["MAINTENANCE_STATUS", "TOKEN_REFUSED_STATUS", "log", "raise_resp_error"]

# No handler is added: until the application configures logging, errors still reach
# standard error through the logging module's last-resort handler.
log = logging.getLogger("quorvex")

TOKEN_REFUSED_STATUS = 401
MAINTENANCE_STATUS = 503


def _detail(resp: Any) -> str:
    response = resp.get("response") if isinstance(resp, dict) else None
    detail = response.get("detail", "") if isinstance(response, dict) else ""
    return "" if detail is None else str(detail)


def raise_resp_error(status_code: Any, resp: Any, session: Optional[Any] = None) -> None:
    """Raise the error that matches a refused reply; a 200 reply raises nothing.

    401 raises ``TokenError``, 503 ``SystemMaintenance``, any other code ``ServiceError``;
    each carries the status code and the reply's ``response.detail``. ``session`` is the
    session that received the reply; it is accepted for the callers' uniform signature.
    """
    if status_code == 200:
        return
    detail = _detail(resp)
    if status_code == TOKEN_REFUSED_STATUS:
        raise TokenError(status_code, detail)
    if status_code == MAINTENANCE_STATUS:
        raise SystemMaintenance(status_code, detail)
    raise ServiceError(status_code, detail)
