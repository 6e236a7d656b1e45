"""The signing module under the backend package, where SolaceAPI looks for it on macOS."""

from quorvex.TWCA.ca import CASignError, PyTWCASign

__all__ = ["CASignError", "PyTWCASign"]
