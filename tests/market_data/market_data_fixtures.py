"""Sample quote content and a log capture shared by the market-data tests."""

import datetime

import pytest

# 2024-01-02 09:00:01.5 in Taipei.
OPENING_MICROS = 1704157201500000
OPENING = datetime.datetime(2024, 1, 2, 9, 0, 1, 500000)

PRICES = [595.0, 594.0, 593.0, 592.0, 591.0]
ASKS = [596.0, 597.0, 598.0, 599.0, 600.0]
VOLUMES = [12, 30, 41, 8, 5]


# fmt: off
def stock_tick_content(code="2330"):
    return [
        code, OPENING_MICROS, 590.0, 595.0, 596.0, 589.0, 593.27, 1785000.0, 4155000000.0, 3, 7004, 1, 2,
        2.0, 0.34, 3500, 3504, 812, 790, 120, 15, False, True,
    ]


def futures_tick_content(code="TXFL6"):
    return [
        code, OPENING_MICROS, 23010.0, 23005.5, 4100, 4200, 23012.3, 23020.0, 23030.0, 23000.0, 4604000.0,
        9.8e9, 2, 4300, 2, 1, 15.0, 0.07, False,
    ]


def stock_bidask_content(code="2330"):
    return [
        code, OPENING_MICROS, PRICES, VOLUMES, [1, 0, -2, 0, 3], ASKS, VOLUMES[::-1], [0, 0, 0, 1, 0], False,
        False,
    ]


def futures_bidask_content(code="TXFL6"):
    bids = [23019.0, 23018.0, 23017.0, 23016.0, 23015.0]
    asks = [23020.0, 23021.0, 23022.0, 23023.0, 23024.0]
    return [
        code, OPENING_MICROS, 640, 720, bids, VOLUMES, [0] * 5, asks, VOLUMES, [0] * 5, 23018.0, 23021.0, 2,
        3, 23005.5, True,
    ]
# fmt: on


def stock_quote_content(code="2330"):
    return stock_tick_content(code)[:21] + [PRICES, VOLUMES, [0] * 5, ASKS, VOLUMES, [0] * 5, False, False]


@pytest.fixture
def logged_errors(api_module):
    """Messages (with tracebacks) logged at error level through the logging library."""
    messages = []
    sink = api_module.logger.add(messages.append, level="ERROR", format="{message}")
    yield messages
    api_module.logger.remove(sink)
