"""Money, holdings and reservations through SolaceAPI on the embedded paper broker: what the
queries answer after fills, in both modes, and for the account holder only."""

import datetime

import pytest

from quorvex.constant import FetchStatus, Status
from quorvex.paper import DEMO

from .support import download_contracts, front_future, later, order, run, stock, wait_until

TODAY = datetime.datetime.now(datetime.timezone(datetime.timedelta(hours=8))).strftime("%Y-%m-%d")


def test_stock_holdings_cash_and_profit_follow_the_fills(make_api):
    api = make_api(DEMO.second)
    account = api.default_stock_account
    bought = api.place_order(stock(), order(api, "Buy", 1010, 2, order_type="IOC"))
    assert bought.status.status == Status.Filled

    positions = api.list_positions(account, "Common")
    assert [(p.code, p.quantity, p.direction.value) for p in positions] == [("2330", 2, "Buy")]
    placeholder, delivered = later(api, "list_positions", account, "Share")
    assert delivered is placeholder and placeholder[0].quantity == 2000
    lots = api.list_position_detail(account, placeholder[0].id, timeout=0)  # fills without a callback
    assert wait_until(lambda: lots)
    assert sum(lot.quantity for lot in lots) == 2000

    balance = api.account_balance(account)
    assert balance.acc_balance == 5_000_000 and balance.status == FetchStatus.Fetched
    rows = api.settlements(account)
    assert [r.T for r in rows] == [0, 1, 2] and rows[2].amount < -2_000_000
    settlement, delivered = later(api, "list_settlements", account)
    assert delivered is settlement and settlement.t2_money == rows[2].amount and settlement.t_day == TODAY

    sold = api.place_order(stock(), order(api, "Sell", 990, 2, order_type="IOC"))
    assert sold.status.status == Status.Filled
    assert api.list_positions(account, "Common") == []
    realised = api.list_profit_loss(account, TODAY, TODAY)
    assert len(realised) == 1 and realised[0].quantity == 2000 and realised[0].pnl < 0
    detail = api.list_profit_loss_detail(account, realised[0].id)
    assert detail and detail[0].code == "2330"
    summary, delivered = later(api, "list_profit_loss_summary", account, TODAY, TODAY)
    assert summary.total.pnl == realised[0].pnl
    assert [row.code for row in summary.profitloss_summary] == ["2330"]


def test_futures_margin_positions_and_profit_follow_the_fills(make_api):
    api = make_api(DEMO.second)
    account = api.default_futopt_account
    txf = front_future(api)
    before = api.margin(account)
    futures_order = dict(account=account, price_type="MKT", order_type="IOC")
    api.place_order(txf, order(api, "Buy", 0, 1, **futures_order))
    after, delivered = later(api, "margin", account)
    assert delivered is after and after.initial_margin > before.initial_margin == 0
    assert after.available_margin < before.available_margin

    held = api.list_positions(account, "Common")
    assert [(p.code, p.quantity) for p in held] == [(txf.code, 1)]
    assert api.list_position_detail(account, held[0].id)[0].code == txf.code

    api.place_order(txf, order(api, "Sell", 0, 1, **futures_order))
    realised = api.list_profit_loss(account, TODAY, TODAY)
    assert [r.direction.value for r in realised] == ["Buy"]
    assert run(api, False, "list_profit_loss_detail", account, realised[0].id)[0].code == txf.code


def test_simulation_sessions_list_paper_positions(make_api):
    api = make_api(DEMO.second, simulation=True, login="simulation")
    api.place_order(stock(), order(api, "Buy", 1010, 1, order_type="IOC"))
    assert api.list_positions_topic == "api/v1/paper/position_unit"
    assert [p.quantity for p in api.list_positions(api.default_stock_account, "Common")] == [1]
    assert api.list_settlements(api.default_stock_account).t2_money < 0
    assert api.account_balance(api.default_stock_account).acc_balance == 0  # refused by the client itself


@pytest.mark.parametrize(
    "person, blocking", [(DEMO, True), (DEMO.second, False)], ids=["signed-blocking", "unsigned-callback"]
)
def test_reservations_and_earmarks_are_made_and_listed(make_api, person, blocking):
    api = make_api(person)
    download_contracts(api)
    lendable = next(
        c for c in api.Contracts.Stocks.values() if c.short_selling_balance > 0 and c.category != "00"
    )
    account = api.default_stock_account

    reserved = run(api, blocking, "reserve_stock", account, lendable, 1000)
    assert reserved.error is None, reserved.error
    assert reserved.response.status is True and reserved.response.share == 1000
    summary = run(api, blocking, "stock_reserve_summary", account)
    assert summary.response.stocks[0].reserved_share == 1000
    assert (
        run(api, blocking, "stock_reserve_detail", account).response.stocks[0].contract.code == lendable.code
    )

    earmarked = run(api, blocking, "reserve_earmarking", account, lendable, 2000, lendable.reference)
    assert earmarked.error is None and earmarked.response.price == lendable.reference
    assert (
        run(api, blocking, "earmarking_detail", account).response.stocks[0].amount > lendable.reference * 2000
    )

    refused = run(api, blocking, "reserve_stock", account, lendable, 1500)  # not whole board lots
    assert refused.error is not None and refused.error.status_code == 400
