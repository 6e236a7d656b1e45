"""The console the commands write to, and the narration of a run step by step."""

import contextlib
import os
import sys
import time
from typing import IO, Iterator, Optional

from rich.console import Console
from rich.markup import escape

__all__ = ["Narrator", "make_console"]

# Tables are laid out for this width when the output is a file or a pipe, where rich would
# otherwise assume 80 columns and wrap every quote row.
_PLAIN_WIDTH = 120


def make_console(no_color: bool = False, file: Optional[IO[str]] = None) -> Console:
    """A console on standard output: colour and live updates on a terminal, plain text elsewhere.

    ``no_color`` (or the NO_COLOR environment variable, which rich honours) keeps the live
    updates but drops the colours.
    """
    stream = file if file is not None else sys.stdout
    probe = Console(file=stream)
    width = None if probe.is_terminal or os.environ.get("COLUMNS") else _PLAIN_WIDTH
    return Console(file=stream, no_color=no_color, width=width, highlight=False, soft_wrap=False)


class Narrator:
    """Says what each step of a run does, how long it took, and what came of it.

    Output from other threads (order reports) goes through the same console, whose own lock
    keeps lines whole.
    """

    def __init__(self, console: Console, total_steps: int) -> None:
        self.console = console
        self.total = total_steps
        self.number = 0

    @property
    def live(self) -> bool:
        """Whether live displays (progress bars, refreshing tables) can be shown."""
        return self.console.is_terminal

    @contextlib.contextmanager
    def step(self, title: str) -> Iterator[None]:
        self.number += 1
        self.console.print(f"[bold cyan][{self.number}/{self.total}][/] [bold]{escape(title)}[/]")
        started = time.monotonic()
        try:
            yield
        except BaseException:
            self.console.print(f"      [red]failed[/] after {time.monotonic() - started:.2f} s")
            raise
        self.console.print(f"      [dim]done in {time.monotonic() - started:.2f} s[/]")

    def say(self, text: str) -> None:
        """One line under the current step; ``text`` may hold rich markup."""
        # Long lines (paths) are left for the terminal to wrap, whole.
        self.console.print("      " + text, soft_wrap=True)

    def show(self, renderable: object) -> None:
        self.console.print(renderable)
