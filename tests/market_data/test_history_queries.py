"""Historical ticks, bars and daily quotes: argument checks, payloads, replies in both modes."""

import datetime
import re

import pytest

from conftest import ok, refused
from quorvex.constant import TicksQueryType
from quorvex.contracts import Stock
from quorvex.data import DailyQuotes, Kbars, Ticks
from quorvex.error import ServiceError

TSMC = Stock(exchange="TSE", code="2330")
TODAY = datetime.date.today()
BOTH_TIMES = "Please take start time and end time parameter."

TICKS_REPLY = {
    "ts": [1704157201500000000, 1704157202000000000],
    "close": [595.0, 596.0],
    "volume": [3, 1],
    "bid_price": [594.0, 595.0],
    "bid_volume": [10, 2],
    "ask_price": [595.0, 596.0],
    "ask_volume": [4, 8],
    "tick_type": [1, 2],
}
KBARS_REPLY = {
    "ts": [1704157260000000000],
    "Open": [590.0],
    "High": [596.0],
    "Low": [589.0],
    "Close": [595.0],
    "Volume": [7004],
    "Amount": [4155000000.0],
}
DAILY_REPLY = {
    "Date": ["2024-01-02"],
    "Code": ["2330"],
    "Open": [590.0],
    "High": [596.0],
    "Low": [589.0],
    "Close": [595.0],
    "Volume": [27000],
    "Transaction": [31000],
    "Amount": [1.6e10],
}

# query, positional arguments, topic attribute, record type, a full reply
QUERIES = [
    pytest.param("ticks", (TSMC,), "ticks_topic", Ticks, TICKS_REPLY, id="ticks"),
    pytest.param("kbars", (TSMC,), "kbars_topic", Kbars, KBARS_REPLY, id="kbars"),
    pytest.param(
        "daily_quotes",
        (datetime.date(2024, 1, 2), True),
        "daily_quotes_topic",
        DailyQuotes,
        DAILY_REPLY,
        id="daily_quotes",
    ),
]


@pytest.mark.parametrize(
    "kwargs, time_range, last_cnt",
    [
        ({}, None, 0),
        ({"time_start": "09:00:00", "time_end": "09:30:00"}, {"start": "09:00:00", "end": "09:30:00"}, 0),
        (
            {"query_type": TicksQueryType.RangeTime, "time_start": "09:00:00", "time_end": "10:00:00"},
            {"start": "09:00:00", "end": "10:00:00"},
            0,
        ),
        ({"query_type": TicksQueryType.LastCount, "last_cnt": 1}, None, 1),
        ({"time_start": "09:00:00"}, None, 0),
    ],
    ids=["all-day", "all-day-with-times", "range", "last-count", "one-time-only"],
)
def test_ticks_payload(api, kwargs, time_range, last_cnt):
    api.ticks(TSMC, "2024-01-02", **kwargs)
    payload = api.session.last("api/v1/data/ticks").payload
    assert list(payload) == ["contract", "date", "query_type", "time_range", "last_cnt"]
    assert payload["contract"] == TSMC.dict() and payload["date"] == "2024-01-02"
    assert payload["query_type"] is kwargs.get("query_type", TicksQueryType.AllDay)
    assert payload["time_range"] == time_range and payload["last_cnt"] == last_cnt


@pytest.mark.parametrize(
    "kwargs, message",
    [
        ({"query_type": TicksQueryType.RangeTime, "time_start": "09:00"}, BOTH_TIMES),
        ({"query_type": TicksQueryType.RangeTime, "time_end": "09:00"}, BOTH_TIMES),
        ({"query_type": TicksQueryType.LastCount}, "Please take last_cnt parameter."),
        ({"query_type": TicksQueryType.LastCount, "last_cnt": -5}, "Please take last_cnt parameter."),
    ],
)
def test_ticks_argument_checks_come_before_anything_is_sent(api, kwargs, message):
    with pytest.raises(Exception, match=re.escape(message)) as raised:
        api.ticks(TSMC, **kwargs)
    assert type(raised.value) is Exception and str(raised.value) == message
    assert api.session.requests == []
    assert api.session._gen_reqid() == "corr-1"  # no correlation id was taken


def test_daily_quotes_sends_the_date_in_iso_form_and_needs_a_date(api):
    api.daily_quotes(datetime.date(2024, 1, 2), False)
    assert api.session.last("api/v1/data/daily_quotes").payload == {"date": "2024-01-02", "exclude": False}
    with pytest.raises(AttributeError, match="isoformat"):
        api.daily_quotes("2024-01-02", False)
    assert len(api.session.requests) == 1


@pytest.mark.parametrize("mode", ["api", "sim_api"])  # none of them is refused in simulation
@pytest.mark.parametrize("query, args, topic, record, reply", QUERIES)
def test_blocking_queries_return_the_filled_record(request, mode, query, args, topic, record, reply):
    api = request.getfixturevalue(mode)
    api.session.reply(getattr(api, topic), ok(reply))
    result = getattr(api, query)(*args)
    assert type(result) is record and result.dict() == reply
    assert api.session.topics() == ["api/v1/data/" + topic[: -len("_topic")]]
    assert api.session.last().timeout == 5000
    assert api._reqrep == {} and api._rep_callback_map == {}


@pytest.mark.parametrize("query, args, topic, record, reply", QUERIES)
def test_non_blocking_queries_fill_the_placeholder_and_call_back(api, query, args, topic, record, reply):
    api.session.reply(getattr(api, topic), ok(reply))
    delivered = []
    placeholder = getattr(api, query)(*args, timeout=0, cb=delivered.append)
    assert all(value == [] for value in placeholder.dict().values())
    assert list(api._rep_callback_map) == [api.session.last().corrid]

    api.session.deliver()
    assert delivered == [placeholder] and delivered[0] is placeholder
    assert placeholder.dict() == reply
    assert api._reqrep == {} and api._rep_callback_map == {}


@pytest.mark.parametrize("query, args, topic, record, reply", QUERIES)
def test_a_refused_query_raises_and_forgets_the_request(api, query, args, topic, record, reply):
    api.session.reply(getattr(api, topic), refused(400, "no such contract"))
    with pytest.raises(ServiceError, match="status 400: no such contract"):
        getattr(api, query)(*args)
    assert api._reqrep == {} and api._rep_callback_map == {}


@pytest.mark.parametrize("query, args, topic, record, reply", QUERIES)
def test_a_reply_without_response_leaves_the_columns_empty(api, query, args, topic, record, reply):
    api.session.reply(getattr(api, topic), {"status": {"status_code": 200}})
    delivered = []
    result = getattr(api, query)(*args, timeout=0, cb=delivered.append)
    api.session.deliver()
    assert delivered == [result] and all(value == [] for value in result.dict().values())


@pytest.mark.parametrize("timeout", [5000, 0])
@pytest.mark.parametrize("query, args, topic, record, reply", QUERIES)
def test_a_request_the_session_fails_leaves_no_placeholder(api, timeout, query, args, topic, record, reply):
    def fail(request):
        raise TimeoutError("no reply within %d ms" % request.timeout)

    api.session.reply(getattr(api, topic), fail)
    with pytest.raises(TimeoutError):
        getattr(api, query)(*args, timeout=timeout)
    assert api._reqrep == {}
