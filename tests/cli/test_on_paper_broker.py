"""The commands end to end on the embedded paper broker, each in its own process."""

import pytest

from quorvex.cli.errors import EXIT_LOGIN_REFUSED, EXIT_UNKNOWN_CODE

# Each step's headline, in order: the demo must say what it does.
DEMO_STEPS = [
    "Connect to the embedded paper broker at paper://",
    "Log in with the demo API key (token_login",
    "Download the contract master",
    "Issue a demo certificate and activate it",
    "Stream ticks and bid/asks of 2330 and TXF",
    "Place a stock limit order: buy 1 lot of 2330",
    "Place a futures order: buy 1 TXF",
    "Refresh the order status (update_status)",
    "Positions and profit and loss",
    "Balance and margin",
    "Log out",
]


def test_demo_runs_every_step_and_exits_0(demo_run):
    assert demo_run.status == 0, demo_run
    positions = [demo_run.out.find(step) for step in DEMO_STEPS]
    assert -1 not in positions, [s for s, p in zip(DEMO_STEPS, positions) if p < 0]
    assert positions == sorted(positions)
    assert "[11/11] Log out" in demo_run.out
    assert "Demo finished" in demo_run.out
    assert "Traceback" not in demo_run.err + demo_run.out


def test_demo_shows_quotes_reports_and_money(demo_run):
    out = demo_run.out
    for table in ("Accounts", "Quotes of 2330", "Trades", "Stock positions", "Futures positions", "Money"):
        assert table in out
    assert "contracts in" in out
    assert "<- " in out, "no order or deal report was shown"


def test_demo_never_prints_its_secrets(demo_run):
    from quorvex.paper import DEMO

    for secret in (DEMO.api_secret, DEMO.password, DEMO.simulation_token):
        assert secret not in demo_run.out + demo_run.err


def test_quote_streams_a_stock_and_a_future(cli):
    run = cli("quote", "2330", "TXF", "--seconds", "1")
    assert run.status == 0, run
    assert "2330" in run.out and "TXF" in run.out
    assert "ticks and" in run.out


def test_contracts_finds_by_code_and_type(cli):
    run = cli("contracts", "2330", "--type", "stk", "--limit", "3")
    assert run.status == 0, run
    assert "2330" in run.out


@pytest.mark.parametrize(
    "args,env,status,says",
    [
        (["quote", "NOSUCH1", "--seconds", "1"], {}, EXIT_UNKNOWN_CODE, "unknown code 'NOSUCH1'"),
        (["contracts", "zzzz-nothing"], {}, EXIT_UNKNOWN_CODE, "no contract matches 'zzzz-nothing'"),
        # A well-formed key the broker does not know, signed with a well-formed secret.
        (
            ["quote", "2330", "--api-key", "unknown-key", "--seconds", "1"],
            {"QUORVEX_SECRET_KEY": "4vJ9JU1bJJE96FWSJKvHsmmFADCg4gpZQff4P3bkLKi"},
            EXIT_LOGIN_REFUSED,
            "the broker refused the login",
        ),
    ],
)
def test_refusals_have_their_exit_status(cli, args, env, status, says):
    run = cli(*args, env=env)
    assert run.status == status, run
    assert says in run.err
    assert "Traceback" not in run.err + run.out


def test_broker_runs_until_its_time_is_up(cli):
    run = cli("broker", "--seconds", "1")
    assert run.status == 0, run
    assert "listening on inproc://demo" in run.out
    assert "Paper broker stopped." in run.out
