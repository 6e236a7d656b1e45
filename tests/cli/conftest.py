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


def _paper_broker_missing() -> Optional[str]:
    """Why paper:// cannot be used in this build; None when it can."""
    try:
        import quorvex.paper  # noqa: F401  (the demo credentials live there)
        from pymqlink import SolClient
    except ImportError as error:
        return "the paper broker is not built yet ({})".format(error)
    client = SolClient()
    try:
        client.connect(
            host="paper://cli-tests", vpn="quorvex", user="tests", password="", clientname="cli-tests/probe"
        )
    except Exception as error:
        return "paper:// cannot connect ({}: {})".format(type(error).__name__, error)
    client.disconnect()
    return None


@pytest.fixture(scope="session")
def paper_broker():
    reason = _paper_broker_missing()
    if reason:
        pytest.skip(reason)


# What the demo and the README example use beyond logins and contracts.
TRADING_TOPICS = (
    "api/v1/order/place_order",
    "api/v1/order/update_status",
    "api/v1/portfolio/position_unit",
    "api/v1/portfolio/profit_loss",
    "api/v1/portfolio/account_balance",
    "api/v1/portfolio/margin",
)


@pytest.fixture(scope="session")
def paper_trading(paper_broker):
    """The paper broker with its order and account services."""
    from quorvex.paper import PaperBroker

    broker = PaperBroker()
    try:
        missing = [topic for topic in TRADING_TOPICS if topic not in broker.topics()]
    finally:
        broker.close()
    if missing:
        pytest.skip("the paper broker does not serve {} yet".format(", ".join(missing)))


@pytest.fixture(scope="session")
def demo_run(paper_trading, tmp_path_factory):
    """One demo run serves every assertion about it: it is the slowest thing here."""
    return run_cli(tmp_path_factory.mktemp("demo"), "demo", "--seconds", "2")
