"""Where the binding reports exceptions raised by user callbacks."""

from loguru import logger


def report_callback_error(where, exc):
    """Log `exc`, raised by the callback described by `where`, with its traceback."""
    logger.opt(exception=exc).error("pymqlink: the {} raised {}: {}", where, type(exc).__name__, exc)
