"""The docstrings of SolaceAPI's methods, attached when the api module is built, so that
``help(SolaceAPI)`` shows them. ``timeout`` is in milliseconds everywhere: a non-zero value
waits for the reply; 0 returns a placeholder at once, completed on the messaging thread,
which then calls ``cb`` with it."""

from typing import Any, Dict

_QUERY = (
    " Blocking with a non-zero ``timeout`` (ms); with 0 or None the record returned is completed later"
    " and given to ``cb``."
)

DOCS: Dict[str, str] = {
    # construction and handlers
    "set_init_callback": "Register the message, point-to-point and event entry points with the session.",
    "set_context": "Store the user context handed first to handlers set with ``bind=True``.",
    "set_callback": "Set the handler of untyped quote messages (``on_quote_callback``).",
    "on_msg_wrap": "Entry point of published messages: routes them to the quote handlers, errors logged.",
    "on_event_wrap": "Entry point of session events: calls ``on_event_callback``, errors logged.",
    "on_session_down_wrap": "Entry point of a lost session: calls ``on_session_down_callback``.",
    "set_msg_callback": "Store ``func`` as ``on_msg_callback`` and register the message entry point.",
    "set_event_callback": "Set the session-event handler ``func(resp_code, event_code, info, event)``.",
    "set_session_down_callback": "Set the handler called with no arguments when the session is lost.",
    "on_quote": "Decorator form of ``set_quote_callback``; returns ``func`` unchanged.",
    "on_event": "Decorator form of ``set_event_callback``; returns ``func`` unchanged.",
    "on_order": "Decorator form of ``set_order_callback``; returns ``func`` unchanged.",
    "set_order_callback": "Set the order-report handler ``func(order_state, report)`` and register the "
    "point-to-point entry point.",
    "on_p2p_wrap": "Entry point of point-to-point order and deal reports: maps the topic's last word to an "
    "``OrderState`` and calls ``on_order_wrap``.",
    "on_order_wrap": "Call ``on_order_callback(order_state, state)``.",
    "set_forder_ordno": "Copy a futures order report's exchange order number into its trade.",
    # session
    "login": "Log in with a person id and password (hashed to MD5 unless ``hashed``); returns "
    "(accounts, contract_download, web_token). A refusal disconnects and raises.",
    "list_accounts": "The accounts of the last login (the same list object).",
    "subscribe_trade": "Switch the order and deal reports of ``account`` on or off; True when done.",
    "error_tracking": "Whether the service tracks client errors for ``person_id``.",
    "token_login": "Log in with an API key: the login document is signed with the Ed25519 seed in "
    "``secret_key`` (Base58); returns (accounts, contract_download, person_id).",
    "simulation_login": "Enter the simulation environment with a session token already held; returns "
    "(accounts, contract_download).",
    "logout": "End the session when a token is held, disconnect and clear the token; returns True.",
    "trace_log": "Report a placed order to the broker's audit trail, at most one per second.",
    # signing
    "activate_ca": "Open the PKCS#12 certificate of ``person_id`` for signing; returns whether it activated.",
    "prepare_ca": "Sign ``order`` with its account holder's certificate, else the logged-in person's.",
    "prepare_casign": "Sign ``plain_text`` for ``account``'s person; returns a ``CASign``.",
    # quotes
    "subscribe": "Subscribe the quotes of ``contract`` (quote type, odd lots, version) on the session.",
    "unsubscribe": "Undo ``subscribe`` with the same arguments.",
    "on_quote_wrap": "Route a quote message by its topic to a typed record and its handler.",
    "set_quote_callback": "Set the handler of untyped quote messages ``func(topic, msg)``.",
    "set_on_tick_stk_v1_callback": "Handler ``func(exchange, TickSTKv1)``; ``bind``: context first.",
    "set_on_tick_fop_v1_callback": "Handler ``func(exchange, TickFOPv1)``; ``bind``: context first.",
    "set_on_bidask_stk_v1_callback": "Handler ``func(exchange, BidAskSTKv1)``; ``bind``: context first.",
    "set_on_bidask_fop_v1_callback": "Handler ``func(exchange, BidAskFOPv1)``; ``bind``: context first.",
    "set_on_quote_stk_v1_callback": "Handler ``func(exchange, QuoteSTKv1)``; ``bind``: context first.",
    # market data
    "ticks": "The ticks of ``contract`` on ``date``: all day, a time range, or the last ``last_cnt``; "
    "a ``Ticks`` record." + _QUERY,
    "kbars": "One-minute bars of ``contract`` from ``start`` to ``end``; a ``Kbars`` record." + _QUERY,
    "daily_quotes": "The daily quote of every stock on ``date`` (a date object); a ``DailyQuotes`` record."
    + _QUERY,
    "snapshots": "The latest snapshot of each contract; a list of ``Snapshot``." + _QUERY,
    "scanners": "Stocks ranked by ``scanner_type`` (``count`` 1 to 200); a list of ``ChangePercentRank``."
    + _QUERY,
    "credit_enquires": "Margin and short-sale credit of each stock; a list of ``CreditEnquire``." + _QUERY,
    "short_stock_sources": "Shares available to borrow of each stock; a list of ``ShortStockSource`` "
    "(refused in simulation)." + _QUERY,
    # contracts
    "fetch_all_contract": "Download the contract master: probe each security type, then request every page "
    "non-blocking; ``cb(security_type)`` as each type completes. A no-op while one runs.",
    "fetch_contract_max_page": "Ask each security type's page count (page 0), waiting for each reply.",
    "fetch_contracts": "Request one page of one security type's contracts.",
    "set_contract_cb": "Record the page and callback of a contract page request.",
    "fetch_all_page": "Whether every page of a page list has arrived.",
    # orders
    "place_comboorder_cb": "Reply handler of a combination placement.",
    "place_order": "Sign and place ``order`` on ``contract``; returns its ``Trade``, kept in the trade book."
    + _QUERY,
    "cancel_order": "Sign and send a cancel of ``trade``'s order; returns ``trade``." + _QUERY,
    "update_order": "Change ``trade``'s limit ``price`` and/or take ``quantity`` units off it; returns "
    "``trade``." + _QUERY,
    "update_status": "Refresh the state of every order of ``account`` into the trade book." + _QUERY,
    "trades": "The trade book's trades, in the order first stored.",
    "place_comboorder": "Place a combination order (live sessions only); returns its ``ComboTrade``."
    + _QUERY,
    "cancel_comboorder": "Cancel a combination order (live sessions only); returns it." + _QUERY,
    "update_combostatus": "Refresh the combination orders of ``account`` (live sessions only)." + _QUERY,
    "combotrades": "The combination trade book's trades, in the order first stored.",
    # accounts
    "account_balance": "The settled cash of a stock account; an ``AccountBalance``." + _QUERY,
    "margin": "The margin sheet of a futures and options account; a ``Margin``." + _QUERY,
    "settlements": "Amounts due today and on the next two business days; a list of ``SettlementV1``."
    + _QUERY,
    "list_settlements": "Amounts due T, T+1 and T+2 in one ``Settlement``." + _QUERY,
    "list_positions": "Open positions of ``account`` in ``unit``; the list is also cached per account."
    + _QUERY,
    "list_position_detail": "The lots behind cached position ``detail_id`` (live sessions only)." + _QUERY,
    "list_profit_loss": "Realised profit and loss from ``begin_date`` to ``end_date``; cached per account."
    + _QUERY,
    "list_profit_loss_detail": "The detail behind cached profit and loss item ``detail_id`` (live only)."
    + _QUERY,
    "list_profit_loss_summary": "Profit and loss per contract with a total; a ``ProfitLossSummaryTotal``."
    + _QUERY,
    # reservation
    "reserve_stock": "Reserve ``share`` shares of a stock for short selling, signed; a "
    "``ReserveStockResponse`` whose ``error`` holds a refusal." + _QUERY,
    "reserve_earmarking": "Earmark funds for ``share`` shares at ``price``, signed; a "
    "``ReserveEarmarkingResponse``." + _QUERY,
    "stock_reserve_summary": "Reserved and available shares per stock." + _QUERY,
    "stock_reserve_detail": "Each reservation of the account." + _QUERY,
    "earmarking_detail": "Each earmark of the account." + _QUERY,
}


def attach(cls: Any) -> None:
    """Give each method and property of ``cls`` named in ``DOCS`` its docstring."""
    for name, text in DOCS.items():
        member = vars(cls).get(name)
        if member is not None:
            member.__doc__ = text
