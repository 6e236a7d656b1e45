"""Running the command line as a user does: a separate process, with a time limit."""

import functools
import os
import subprocess
import sys
from typing import Dict, Optional

import pytest

# Generous: the demo streams for two seconds and downloads the contract master on 2 shared cores.
RUN_LIMIT_S = 90


class Run:
    def __init__(self, completed: subprocess.CompletedProcess) -> None:
        self.status = completed.returncode
        self.out = completed.stdout
        self.err = completed.stderr

    def __repr__(self) -> str:
        return "Run(status={}, out={!r}, err={!r})".format(self.status, self.out[-2000:], self.err[-2000:])


def run_cli(folder, *args: str, env: Optional[Dict[str, str]] = None, timeout: float = RUN_LIMIT_S) -> Run:
    """Runs `python -m quorvex.cli ARGS` in a fresh process in `folder`, with the tests'
    PYTHONPATH and a contracts cache of its own."""
    environ = dict(os.environ)
    environ.pop("QUORVEX_SECRET_KEY", None)
    environ["QUORVEX_CONTRACTS_DIR"] = str(folder / "contracts")
    environ["PYTHONPATH"] = os.pathsep.join(p for p in sys.path if p)
    environ.update(env or {})
    completed = subprocess.run(
        [sys.executable, "-m", "quorvex.cli", *args],
        capture_output=True,
        text=True,
        env=environ,
        timeout=timeout,
        cwd=str(folder),
    )
    return Run(completed)


@pytest.fixture
def cli(tmp_path):
    """cli(*args, env={...}): the command line in its own process."""
    return functools.partial(run_cli, tmp_path)


@pytest.fixture(scope="session")
def demo_run(tmp_path_factory):
    """One demo run serves every assertion about it: it is the slowest thing here."""
    return run_cli(tmp_path_factory.mktemp("demo"), "demo", "--seconds", "2")
