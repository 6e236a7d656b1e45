"""Bad arguments end with status 2 and a message that says what was expected; no broker needed."""

import pytest

from quorvex.cli import main
from quorvex.cli.errors import EXIT_BAD_ARGUMENTS, EXIT_UNREACHABLE


@pytest.mark.parametrize(
    "argv,says",
    [
        ([], "COMMAND"),
        (["trade"], "invalid choice: 'trade'"),
        (["demo", "--seconds", "0"], "expected more than 0 and at most 3600"),
        (["demo", "--seconds", "soon"], "'soon' is not a number of seconds"),
        (["quote"], "the following arguments are required: CODE"),
        (["quote", "2330", "--seconds", "-1"], "expected more than 0"),
        (["quote", "2330", "--host", "localhost"], "expected scheme://address"),
        (["contracts", "--type", "bond"], "expected one of IND, STK, FUT, OPT"),
        (["contracts", "--limit", "0"], "expected at least 1"),
        (["contracts", "--limit", "many"], "'many' is not a whole number"),
        (["broker", "--seconds", "x"], "is not a number of seconds"),
    ],
)
def test_refused_before_anything_runs(capsys, argv, says):
    assert main(argv) == EXIT_BAD_ARGUMENTS
    captured = capsys.readouterr()
    assert says in captured.err
    assert "Traceback" not in captured.err + captured.out


def test_credentials_checked_before_connecting(capsys, monkeypatch):
    monkeypatch.delenv("QUORVEX_SECRET_KEY", raising=False)
    assert main(["quote", "2330", "--api-key", "my-key"]) == EXIT_BAD_ARGUMENTS
    assert "expected it in the environment variable QUORVEX_SECRET_KEY" in capsys.readouterr().err


def test_unknown_scheme_is_an_unreachable_broker(capsys, monkeypatch):
    monkeypatch.setenv("QUORVEX_SECRET_KEY", "1" * 44)
    assert main(["quote", "2330", "--host", "nosuch://nowhere", "--api-key", "k"]) == EXIT_UNREACHABLE
    err = capsys.readouterr().err
    assert "error:" in err and "Traceback" not in err


def test_version_and_help_succeed(capsys):
    assert main(["--version"]) == 0
    assert "quorvex" in capsys.readouterr().out
    assert main(["demo", "--help"]) == 0
    assert "--seconds" in capsys.readouterr().out
