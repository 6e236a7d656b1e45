"""quorvex: trading client core for the Taiwan market (stocks, odd lots, futures and options)."""

from quorvex._version import __version__

__all__ = ["__version__"]
