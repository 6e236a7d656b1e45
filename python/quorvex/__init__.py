"""quorvex: trading client core for the Taiwan market (stocks, odd lots, futures and options).

``quorvex.Client`` is the front object; ``quorvex.enable_logging()`` shows the library's log.
"""

from typing import TYPE_CHECKING, Any

from quorvex._version import __version__

if TYPE_CHECKING:  # pragma: no cover
    from quorvex.client import Client, enable_logging

__all__ = ["Client", "__version__", "enable_logging"]


def __getattr__(name: str) -> Any:
    # The front object is imported on first use, so `import quorvex` stays light.
    if name in ("Client", "enable_logging"):
        import quorvex.client

        return getattr(quorvex.client, name)
    raise AttributeError("module 'quorvex' has no attribute {!r}".format(name))
