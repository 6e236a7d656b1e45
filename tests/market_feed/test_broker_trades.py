"""The paper broker's own matches and resting orders show in its quotes and history."""

import pytest

from bus.helpers import Recorder, wait_until
from quorvex.constant import Action, OrderType, PriceType, QuoteType, QuoteVersion
from quorvex.contracts import Stock
from quorvex.order import Order

from .feed_support import HARBOR, TRADING_DAY, paper_api


@pytest.fixture
def market():
    """A quiet morning, five times faster than real time; orders are signed by a stand-in."""
    api = paper_api(TRADING_DAY + "T10:00", 5)
    # The simulation environment does not check certificates.
    api.prepare_ca = lambda order: order
    yield api
    api.logout()


def stock_account(api):
    return next(account for account in api.list_accounts() if account.account_type == "S")


def test_a_filled_order_appears_as_a_tick(market):
    ticks = Recorder()
    market.set_on_tick_stk_v1_callback(ticks)
    market.subscribe(HARBOR, QuoteType.Tick, False, QuoteVersion.v1)
    ticks.wait(1)  # the subscription is live
    account = stock_account(market)
    order = Order(
        action=Action.Buy,
        price=0,
        quantity=13,
        price_type=PriceType.MKT,
        order_type=OrderType.IOC,
        account=account,
    )
    trade = market.place_order(HARBOR, order)

    def dealt():
        market.update_status(account)
        return trade.status.deals

    assert wait_until(dealt)
    deal = trade.status.deals[0]

    def mine():
        return [tick for _, tick in ticks.calls if tick.volume == deal.quantity and tick.close == deal.price]

    assert wait_until(lambda: mine())
    tick = mine()[0]
    assert tick.tick_type == 1  # the buyer took the ask
    history = market.ticks(HARBOR, TRADING_DAY)
    assert (deal.price, deal.quantity, 1) in set(zip(history.close, history.volume, history.tick_type))


def test_a_resting_order_joins_the_bid_asks(market):
    # A cheap stock, so that the largest order the broker takes stands out from the market's
    # own levels (a few hundred lots at most).
    maple = Stock(code="2888", exchange="TSE")
    books = Recorder()
    market.set_on_bidask_stk_v1_callback(books)
    market.subscribe(maple, QuoteType.BidAsk, False, QuoteVersion.v1)
    best_bid = books.wait(1)[-1][1].bid_price[0]
    order = Order(action=Action.Buy, price=best_bid, quantity=499, account=stock_account(market))
    market.place_order(maple, order)

    def showing():
        # Any book since the order rested that stands at that price with the order in it.
        return [
            book
            for _, book in books.calls
            if best_bid in book.bid_price and book.bid_volume[book.bid_price.index(best_bid)] >= 499
        ]

    assert wait_until(showing)
