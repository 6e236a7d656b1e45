"""Orders through SolaceAPI on the embedded paper broker: placing, cancelling and changing
them in both modes, the trade book, order reports, combination orders, and two persons who
cannot see or touch each other's orders."""

import pytest

from quorvex.account import FutureAccount, StockAccount
from quorvex.constant import Action, OrderState, Status
from quorvex.contracts import ComboBase, ComboContract
from quorvex.error import ServiceError
from quorvex.paper import DEMO

from .support import download_contracts, front_future, order, run, stock, wait_until


def states(api, count):
    return [state for state, _ in api.reports.wait(count)]


@pytest.mark.parametrize("blocking", [True, False], ids=["blocking", "callback"])
def test_a_marketable_order_fills_and_its_reports_reach_the_order_callback(make_api, blocking):
    api = make_api(DEMO.second)
    trade = run(api, blocking, "place_order", stock(), order(api, "Buy", 1010, 2))
    assert trade.status.status == Status.Filled
    assert trade.status.deal_quantity == 2 and trade.status.deals
    assert trade.status.order_datetime is not None
    assert api._trades[trade.order.id] is trade and len(api.trades) == 1
    assert trade.order.seqno and trade.order.ordno
    assert states(api, 2)[:2] == [OrderState.Order, OrderState.Deal]
    _, deal = api.reports.calls[-1]
    assert deal["id"] == trade.order.id and deal["code"] == "2330"


@pytest.mark.parametrize("blocking", [True, False], ids=["blocking", "callback"])
def test_a_resting_order_is_repriced_reduced_cancelled_and_refreshed(make_api, blocking):
    api = make_api(DEMO.second)
    timeout = 5000 if blocking else 0
    trade = api.place_order(stock(), order(api, "Buy", 950, 3))
    assert trade.status.status == Status.Submitted
    called = []
    api.update_order(trade, price=955, timeout=timeout, cb=called.append)
    api.update_order(trade, quantity=1, timeout=timeout, cb=called.append)
    api.cancel_order(trade, timeout=timeout, cb=called.append)
    # Blocking modifications take no callback; a cancel always calls back.
    assert wait_until(lambda: len(called) == (1 if blocking else 3))
    assert [s["operation"]["op_type"] for _, s in api.reports.wait(4)] == [
        "New",
        "UpdatePrice",
        "UpdateQty",
        "Cancel",
    ]
    api.update_status(api.default_stock_account)
    assert trade.status.status == Status.Cancelled
    assert trade.status.modified_price == 955 and trade.status.cancel_quantity == 3
    assert trade.order.price == 950  # the order keeps its first price; the status has the new one

    # Nothing left to cancel: the trade is marked failed with the broker's reason, not raised.
    api.cancel_order(trade)
    assert trade.status.status == Status.Failed and "nothing" in trade.status.msg.lower()


def test_status_refresh_brings_in_orders_placed_by_another_session(make_api):
    placing = make_api(DEMO.second)
    other = make_api(DEMO.second)
    placing.place_order(stock("2317"), order(placing, "Buy", 1, 1))  # refused: below the limit
    placing.place_order(stock(), order(placing, "Buy", 950, 1))
    refreshed = []
    other.update_status(other.default_stock_account, timeout=0, cb=refreshed.append)
    assert wait_until(lambda: refreshed)
    assert [t.status.status for t in other.trades] == [Status.Failed, Status.Submitted]
    assert other.trades[1].order.account.person_id == DEMO.second.person_id
    # The second session also heard the placing session's reports: same person, subscribed.
    assert OrderState.Order in states(other, 1)


def test_futures_reports_fill_in_the_exchange_order_number(make_api):
    api = make_api(DEMO.second)
    txf = front_future(api)
    trade = api.place_order(
        txf, order(api, "Buy", 0, 1, account=api.default_futopt_account, price_type="MKT", order_type="IOC")
    )
    assert trade.status.status == Status.Filled
    assert states(api, 2)[:2] == [OrderState.FOrder, OrderState.FDeal]
    _, forder = api.reports.calls[0]
    assert forder["order"]["id"] == trade.order.id
    assert api._trades[trade.order.id].order.ordno == forder["order"]["ordno"]


def test_signed_accounts_trade_with_the_holders_certificate_live_and_without_it_in_simulation(make_api):
    live = make_api(DEMO)
    signed = live.place_order(stock(), order(live, "Buy", 950, 1))
    assert signed.status.status == Status.Submitted
    assert signed.order.ca  # signed by the activated certificate, verified by the broker

    simulated = make_api(DEMO, simulation=True, login="simulation")
    assert simulated.place_order_topic == "api/v1/paper/place_order"
    paper = simulated.place_order(stock(), order(simulated, "Buy", 1010, 1))
    assert paper.status.status == Status.Filled
    assert simulated.list_positions(simulated.default_stock_account, "Common")[0].quantity == 1


def test_two_persons_cannot_see_or_touch_each_others_accounts_orders_or_reports(make_api):
    a, b = make_api(DEMO), make_api(DEMO.second)
    theirs = StockAccount(**DEMO.stock_account)
    mine = a.place_order(stock(), order(a, "Buy", 950, 2))
    assert mine.status.status == Status.Submitted

    for query in (b.account_balance, b.update_status, lambda account: b.list_positions(account, "Common")):
        with pytest.raises(ServiceError, match="status 403"):
            query(theirs)
    with pytest.raises(ServiceError, match="status 403"):
        b.subscribe_trade(theirs, True)
    with pytest.raises(ServiceError, match="status 404"):
        b.cancel_order(mine)
    stolen = b.place_order(stock(), order(b, "Buy", 950, 1, account=theirs))
    assert stolen.status.status == Status.Failed  # the broker refused the account with 403
    b.update_status(b.default_stock_account)
    assert all(t.order.account.person_id == DEMO.second.person_id for t in b.trades if t.order.id)

    a.reports.wait(1)
    assert not any(m.get("order", {}).get("id") == mine.order.id for _, m in b.reports.calls)
    assert a.update_order(mine, quantity=1) is mine  # the holder still can


@pytest.mark.parametrize("blocking", [True, False], ids=["blocking", "callback"])
def test_combination_orders_rest_cancel_and_refresh(make_api, blocking):
    api = make_api(DEMO.second)
    download_contracts(api)
    calls = [c for c in api.Contracts.Options.values() if c.option_right.value == "C"][:2]
    legs = ComboContract(
        legs=[
            ComboBase(action=Action.Buy, **calls[0].dict()),
            ComboBase(action=Action.Sell, **calls[1].dict()),
        ]
    )
    spread = order(api, "Buy", -5000, 1, account=api.default_futopt_account)
    combo = run(api, blocking, "place_comboorder", legs, spread)
    assert combo.status.status == Status.Submitted and combo.order.id in api._combotrades
    run(api, blocking, "update_combostatus", api.default_futopt_account)
    assert run(api, blocking, "cancel_comboorder", combo) is combo
    api.update_combostatus(api.default_futopt_account)
    assert api._combotrades[combo.order.id].status.status == Status.Cancelled
    assert states(api, 2).count(OrderState.FOrder) >= 2

    with pytest.raises(ServiceError, match="status 400"):
        api.cancel_comboorder(api._combotrades[combo.order.id])
    assert isinstance(api.default_futopt_account, FutureAccount)
