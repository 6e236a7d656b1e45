"""Logging of the front object: the standard ``logging`` logger "quorvex", silent until asked.

The backend's exception catcher and its simulation warnings write through loguru; with a
client in the process those records are forwarded to the "quorvex" logger as well, instead of
loguru's default standard-error output.
"""

import logging
import sys
import threading
from typing import Any, Union

__all__ = ["enable_logging", "quiet_by_default"]

_log = logging.getLogger("quorvex")
_OUR_MODULES = ("quorvex", "pymqlink")
_lock = threading.Lock()
_routed = False


def _ours(record: Any) -> bool:
    name = record.get("name") or ""
    return name.split(".", 1)[0] in _OUR_MODULES


def _forward(message: Any) -> None:
    record = message.record
    exception = record["exception"]
    exc_info = (exception.type, exception.value, exception.traceback) if exception else None
    _log.log(record["level"].no, "%s", record["message"], exc_info=exc_info)


def quiet_by_default() -> None:
    """Make the library silent unless the application configures logging (done once)."""
    global _routed
    with _lock:
        if _routed:
            return
        _routed = True
        if not _log.handlers:
            _log.addHandler(logging.NullHandler())
        try:
            from loguru import logger
        except ImportError:  # pragma: no cover - loguru is a dependency
            return
        try:
            # loguru's default sink keeps everything but our records, which go to logging.
            logger.remove(0)
        except ValueError:
            pass  # the application configured loguru itself: only add the forwarding
        else:
            logger.add(sys.stderr, filter=lambda record: not _ours(record))
        logger.add(_forward, filter=_ours, format="{message}", level=0)


def enable_logging(level: Union[int, str] = logging.INFO) -> logging.Handler:
    """Show the library's log on standard error from ``level`` on; returns the handler added.

    This is the one switch: without it (or a logging configuration of the application's own)
    the library prints nothing.
    """
    handler = logging.StreamHandler()
    handler.setFormatter(logging.Formatter("%(asctime)s %(levelname)s %(name)s: %(message)s"))
    _log.addHandler(handler)
    _log.setLevel(level)
    return handler
