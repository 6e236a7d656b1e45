"""The front object for people: ``quorvex.Client`` with typed errors, events and true trades.

::

    from quorvex import Client

    with Client.paper(market_start="09:00", clock_speed=10) as client:
        client.login_api_key(api_key, secret_key)   # also loads the contract master
        ...
"""

from quorvex.client._client import Client, market_day
from quorvex.client._logs import enable_logging
from quorvex.client.events import DealEvent, OrderEvent, SessionEvent

__all__ = ["Client", "DealEvent", "OrderEvent", "SessionEvent", "enable_logging", "market_day"]
