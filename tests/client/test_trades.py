"""Trades stay true: replies and reports reach the one Trade of each order."""

import threading

import pytest

from bus.helpers import wait_until
from quorvex.client import DealEvent, OrderEvent
from quorvex.constant import Status
from quorvex.error import OrderRefused


def _ids(client):
    return [trade.order.id for trade in client.trades]


def test_a_cancel_shows_on_the_trade_and_its_report_names_it(client):
    reports = []
    client.on_order(reports.append)
    stock = client.contract("2330")
    trade = client.buy(stock, stock.limit_down, 1)
    assert trade.status.status is Status.Submitted

    assert client.cancel_order(trade) is trade
    assert (trade.status.status, trade.status.cancel_quantity) == (Status.Cancelled, 1)

    assert wait_until(lambda: any(r.operation == "Cancel" for r in reports))
    cancel = next(r for r in reports if r.operation == "Cancel")
    assert isinstance(cancel, OrderEvent) and cancel.ok and cancel.trade is trade
    # A late report of the placement never takes the trade back to Submitted.
    assert trade.status.status is Status.Cancelled

    with pytest.raises(OrderRefused) as refused:
        client.cancel_order(trade)
    assert refused.value.sts_code == "74006" and trade.status.status is Status.Cancelled


def test_fills_reach_the_trade_through_deal_reports(client):
    deals = []
    seen = threading.Event()
    client.on_deal(lambda event: (deals.append(event), seen.set()))
    stock = client.contract("2330")
    trade = client.buy("2330", stock.limit_up, 1)

    assert seen.wait(5)
    deal = deals[0]
    assert isinstance(deal, DealEvent) and deal.trade is trade and deal.code == "2330"
    assert deal.time is not None and deal.time.utcoffset().total_seconds() == 8 * 3600
    assert trade.status.status is Status.Filled and trade.status.deal_quantity == 1
    assert [d.seq for d in trade.status.deals] == [deal.seq]  # the reply's deal and the report's are one


def test_a_refused_order_carries_its_reason_and_stays_one_trade(client):
    stock = client.contract("2330")
    with pytest.raises(OrderRefused, match="outside the day's limits") as refused:
        client.buy(stock, stock.limit_up + 100, 1)
    trade = refused.value.trade
    assert refused.value.sts_code == "74003" and refused.value.status_code == 400
    assert trade.status.status is Status.Failed and "limits" in trade.status.msg
    assert trade.status.status_code == "74003"

    # The broker numbered the refused order: its report and the refresh find the same trade.
    assert wait_until(lambda: trade.order.id != "")
    client.update_status()
    assert _ids(client).count(trade.order.id) == 1 and trade in client.trades


def test_a_price_change_and_a_reduction_show_on_the_trade(client):
    stock = client.contract("2330")
    trade = client.buy(stock, stock.limit_down, 3)
    client.update_order(trade, price=stock.limit_down + 5)
    assert trade.status.modified_price == stock.limit_down + 5
    client.update_order(trade, quantity=2)
    assert trade.status.cancel_quantity == 2
    with pytest.raises(ValueError, match=r"quantity must not exceed what is left of the order \(1\)"):
        client.update_order(trade, quantity=2)


def test_a_raising_handler_is_logged_and_delivery_goes_on(client, caplog):
    delivered = []

    @client.on_order
    def broken(event):
        raise RuntimeError("handler bug")

    client.on_order(delivered.append)
    stock = client.contract("2330")
    with caplog.at_level("ERROR", logger="quorvex"):
        client.buy(stock, stock.limit_down, 1)
        assert wait_until(lambda: delivered)
    assert "handler bug" in caplog.text
