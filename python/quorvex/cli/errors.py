"""Exit statuses of the command line and the one error type that carries them.

Every failure a user can meet ends as a ``CliError``: one line on standard error that says
what was wrong and what was expected, and a status a script can test. Nothing here prints a
traceback for these.
"""

from typing import Optional

__all__ = [
    "EXIT_BAD_ARGUMENTS",
    "EXIT_FAILED",
    "EXIT_INTERRUPTED",
    "EXIT_LOGIN_REFUSED",
    "EXIT_OK",
    "EXIT_UNKNOWN_CODE",
    "EXIT_UNREACHABLE",
    "CliError",
]

EXIT_OK = 0
EXIT_FAILED = 1  # a step failed for a reason none of the others names
EXIT_BAD_ARGUMENTS = 2
EXIT_UNKNOWN_CODE = 3
EXIT_LOGIN_REFUSED = 4
EXIT_UNREACHABLE = 5
EXIT_INTERRUPTED = 130  # what shells report for an interrupt


class CliError(Exception):
    """A failure to report in one line, with the exit status it ends the command with."""

    def __init__(self, message: str, status: int = EXIT_FAILED, hint: Optional[str] = None) -> None:
        super().__init__(message)
        self.message = message
        self.status = status
        self.hint = hint
