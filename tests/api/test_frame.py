"""Construction of SolaceAPI: topics, attributes, default handlers, callbacks, end of life."""

import inspect

import pytest

from conftest import make_api

# attribute: (normal topic, simulation topic)
TWO_VALUED = {
    "place_order_topic": ("api/v1/order/place_order", "api/v1/paper/place_order"),
    "cancel_order_topic": ("api/v1/order/cancel_order", "api/v1/paper/cancel_order"),
    "update_status_topic": ("api/v1/order/update_status", "api/v1/paper/update_status"),
    "list_positions_topic": ("api/v1/portfolio/position_unit", "api/v1/paper/position_unit"),
    "list_profit_loss_topic": ("api/v1/portfolio/profit_loss", "api/v1/paper/profit_loss"),
    "update_price_topic": ("api/v1/order/update_price", "api/v1/paper/update_price"),
    "update_qty_topic": ("api/v1/order/update_qty", "api/v1/paper/update_qty"),
}


def topic_attrs(api):
    return [k for k in vars(api) if k.endswith("_topic")]


def test_is_a_plain_compiled_class(api_module):
    assert api_module.__file__.endswith((".so", ".pyd"))
    assert api_module.SolaceAPI.__bases__ == (object,)
    assert api_module.SolaceAPI.__module__ == "quorvex.backend.solace.api"


def test_proxies_default_to_an_empty_dict(api_module):
    # The parameters' names, order and other defaults are the stub's, checked in test_stubs.
    assert inspect.signature(api_module.SolaceAPI.__init__).parameters["proxies"].default == {}


@pytest.mark.parametrize("simulation", [False, True])
def test_thirty_eight_topics_in_both_modes(api_module, simulation):
    api = make_api(api_module, simulation=simulation)
    attrs = topic_attrs(api)
    assert len(attrs) == 38
    assert attrs[0] == "login_topic" and attrs[-1] == "daily_quotes_topic"
    for attr in attrs:
        topic = getattr(api, attr)
        if attr in TWO_VALUED:
            assert topic == TWO_VALUED[attr][bool(simulation)]
        else:
            assert "/paper/" not in topic


def test_topic_names_keep_the_services_own_words(api):
    assert api.login_topic == "api/v1/auth/login"
    assert api.place_comboorder_topic == "api/v1/order/place_comboorder"
    assert api.list_positions_topic == "api/v1/portfolio/position_unit"
    assert api.list_profit_loss_summary_topic == "api/v1/portfolio/profitloss_sum"
    assert api.short_stock_source_topic == "api/v1/data/short_stock_sources"
    assert api.data_contracts_topic == "api/v1/data/contracts"


def test_connection_settings(api):
    # What login connects with (tests/session); the other attributes are declared in the stub.
    assert api.__sol_setup__ == {
        "host": "inproc://test",
        "vpn": "vpn",
        "user": "bus-user",
        "password": "bus-secret",
        "connect_timeout_ms": 3000,
        "reconnect_retries": 10,
        "keep_alive_ms": 3000,
        "reconnect_retry_wait": 3000,
        "keep_alive_limit": 3,
    }


def test_session_callbacks_registered_in_order(api):
    kinds = [c[0] for c in api.session.calls]
    assert kinds == ["set_msg_callback", "set_p2p_callback", "set_event_callback"]
    assert api.session.callbacks["set_msg_callback"] == api.on_msg_wrap


def test_exit_hook_is_the_bound_logout(api_module, api):
    hooks = api_module.atexit.registered
    assert hooks[-1] == api.logout and hooks[-1].__self__ is api


@pytest.mark.parametrize(
    "attr,args,printed",
    [
        ("on_event_callback", (1, 2, "x", "y"), "Response Code: 1 | Event Code: 2 | Info: x | Event: y\n"),
        ("on_session_down_callback", (), "Session Down.\n"),
        ("on_quote_callback", ("T/1", {"a": 1}), "T/1 {'a': 1}\n"),
        ("on_order_callback", ("ORDER", "m"), "ORDER m\n"),
        ("on_tick_stk_v1_callback", ("TSE", "tick"), "TSE tick\n"),
    ],
)
def test_printing_default_handlers(api, capsys, attr, args, printed):
    getattr(api, attr)(*args)
    assert capsys.readouterr().out == printed


def test_context_and_set_callback(api):
    api.set_context(ctx := object())
    assert api.context is ctx
    seen = []
    api.set_quote_callback = seen.append  # set_callback forwards to the quote setter
    api.set_callback(print)
    assert seen == [print]


class TestEndOfLife:
    def test_finaliser_without_session_does_nothing(self, api):
        api.logout = lambda: pytest.fail("logout must not run")
        api.__del__()
        assert ("disconnect",) not in api.session.calls

    def test_finaliser_with_session_logs_out_then_disconnects(self, api):
        order = []
        api.session.sol = True
        api.logout = lambda: order.append("logout")
        api.session.disconnect = lambda: order.append("disconnect")
        api.__del__()
        assert order == ["logout", "disconnect"]

    def test_constructor_failure_propagates(self, api_module, monkeypatch):
        def broken():
            raise RuntimeError("no contracts")

        monkeypatch.setattr(api_module, "new_contracts", broken)
        with pytest.raises(RuntimeError, match="no contracts"):
            make_api(api_module)
