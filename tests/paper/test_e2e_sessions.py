"""Logins, logout and the contract download through SolaceAPI on the embedded paper broker."""

import pytest

from quorvex.account import FutureAccount, StockAccount
from quorvex.backend.solace.api import SolaceAPI
from quorvex.constant import SecurityType
from quorvex.error import ServiceError, TokenError
from quorvex.paper import DEMO

from .support import wait_until


@pytest.mark.parametrize("login", ["password", "token", "simulation"])
def test_every_login_lists_the_persons_accounts(make_api, login):
    api = make_api(DEMO, simulation=login == "simulation", login=login)
    assert [type(a) for a in api.accounts] == [StockAccount, FutureAccount]
    assert api.default_stock_account.account_id == DEMO.stock_account["account_id"]
    assert api.default_futopt_account.broker_id == DEMO.futures_account["broker_id"]
    assert all(a.person_id == DEMO.person_id and a.signed for a in api.accounts)
    assert api._public_ip == "127.0.0.1"
    assert api.session.client_name.startswith("PYAPI/" + DEMO.person_id + "/")
    assert api.subscribe_trade(api.default_stock_account, False) is True
    assert api.error_tracking(DEMO.person_id) is False


def test_login_results_match_what_the_client_returns(host):
    api = SolaceAPI(host, "vpn", "user", "bus-password", False)
    try:
        accounts, contract_download, web_token = api.login(DEMO.second.person_id, DEMO.second.password)
        assert contract_download is True and web_token and accounts == api.list_accounts()
        api.logout()
        _, _, person_id = api.token_login(DEMO.second.api_key, DEMO.second.api_secret, True, 3000)
        assert person_id == DEMO.second.person_id
    finally:
        api.logout()


# Which logins the broker refuses, and why, is the broker's own test.
@pytest.mark.parametrize(
    "simulation, login, says",
    [
        (False, lambda api: api.login(DEMO.person_id, DEMO.second.password), "status 401"),
        (
            False,
            lambda api: api.token_login(DEMO.api_key, DEMO.second.api_secret, True, 5000),
            "does not verify",
        ),
        (True, lambda api: api.simulation_login("no-such-token", DEMO.person_id), "status 401"),
    ],
    ids=["password", "token", "simulation"],
)
def test_a_refused_login_raises_and_leaves_no_session(host, simulation, login, says):
    api = SolaceAPI(host, "vpn", "user", "bus-password", simulation)
    with pytest.raises(TokenError, match=says) as raised:
        login(api)
    assert DEMO.second.password not in str(raised.value) and DEMO.second.api_secret not in str(raised.value)
    assert not api.session.sol
    assert api.accounts == []
    api.session.set_session("")  # a refused simulation token stays installed; nothing to log out


def test_after_logout_the_token_no_longer_opens_services(make_api, host):
    api = make_api(DEMO.second)
    token = api.session._token
    assert api.logout() is True
    stale = SolaceAPI(host, "vpn", "user", "bus-password", True)
    # The broker may have stopped with its last session; either way the token is dead.
    with pytest.raises(TokenError):
        stale.simulation_login(token, DEMO.second.person_id)
    stale.session.set_session("")


def test_contract_download_fills_every_security_type(make_api):
    api = make_api(DEMO.second)
    fetched = []
    api.fetch_all_contract(timeout=0, cb=fetched.append)
    assert wait_until(lambda: api.Contracts.status.value == "Fetched", 10)
    assert sorted(t.value for t in fetched) == sorted(t.value for t in SecurityType)
    assert api.Contracts.Stocks["2330"].reference == 1000
    assert api.Contracts.Stocks.TSE["2330"].limit_up == 1100
    options = api.Contracts.Options
    assert len(options) > 0 and all(c.option_right.value in ("C", "P") for c in list(options.values())[:50])
    future = next(iter(api.Contracts.Futures.TXF.values()))
    assert future.delivery_date and future.underlying_code == "001"


def test_contract_pages_answer_blocking_and_refuse_pages_beyond_the_last(make_api):
    api = make_api(DEMO.second)
    api.fetch_contract_max_page()
    max_page = api.Contracts.Stocks._max_page
    assert max_page >= 1
    api.fetch_contracts(SecurityType.Stock, 1, timeout=5000)
    assert "2330" in api.Contracts.Stocks
    with pytest.raises(ServiceError, match="status 400"):
        api.fetch_contracts(SecurityType.Stock, max_page + 1, timeout=5000)
