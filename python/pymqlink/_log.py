"""Where the binding reports exceptions raised by user callbacks."""

import traceback

from loguru import logger


def report_callback_error(where, exc):
    """Log `exc`, raised by the callback described by `where`, with its traceback, at error level.

    The traceback is formatted here rather than by the log handler, so that no handler setting
    can add the values of local variables (which may hold credentials) to the log.
    """
    text = "".join(traceback.format_exception(type(exc), exc, exc.__traceback__)).rstrip()
    logger.error("pymqlink: the {} raised {}: {}\n{}", where, type(exc).__name__, exc, text)
