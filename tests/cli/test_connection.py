"""Which broker and credentials a command uses when none are given."""

import datetime

import pytest

from quorvex.cli.connection import Credentials, credentials_for, default_host, market_day, trading_day
from quorvex.cli.errors import EXIT_BAD_ARGUMENTS, CliError

TAIPEI = datetime.timezone(datetime.timedelta(hours=8))


@pytest.mark.parametrize(
    "now,day",
    [
        (datetime.datetime(2026, 11, 20, 10, 0, tzinfo=TAIPEI), "2026-11-20"),  # a Friday
        (datetime.datetime(2026, 11, 21, 19, 0, tzinfo=TAIPEI), "2026-11-20"),  # Saturday
        (datetime.datetime(2026, 11, 22, 23, 0, tzinfo=TAIPEI), "2026-11-20"),  # Sunday
        # Sunday 17:00 UTC is already Monday in Taipei.
        (datetime.datetime(2026, 11, 22, 17, 0, tzinfo=datetime.timezone.utc), "2026-11-23"),
    ],
)
def test_the_replayed_day_is_the_latest_weekday_in_taipei(now, day):
    assert market_day(now).isoformat() == day
    host = default_host(now)
    assert host == "paper://demo?market_start={}T09:00&clock_speed=10".format(day)
    assert trading_day(host) == day


def test_a_plain_paper_host_trades_today():
    assert trading_day("paper://demo") == datetime.datetime.now(TAIPEI).date().isoformat()


def test_given_key_takes_its_secret_from_the_environment_only():
    credentials = credentials_for("mqtt://broker:1883", "key-1", {"QUORVEX_SECRET_KEY": "s3cret-seed"})
    assert (credentials.api_key, credentials.secret_key) == ("key-1", "s3cret-seed")
    assert "s3cret-seed" not in repr(credentials)
    with pytest.raises(CliError) as caught:
        credentials_for("mqtt://broker:1883", "key-1", {})
    assert caught.value.status == EXIT_BAD_ARGUMENTS


def test_paper_host_defaults_to_the_demo_key():
    from quorvex.paper import DEMO

    credentials = credentials_for(default_host(), None, {})
    assert isinstance(credentials, Credentials)
    assert (credentials.api_key, credentials.person_id) == (DEMO.api_key, DEMO.person_id)
