import builtins
import datetime
import pickle

import pytest

from quorvex import error
from quorvex.backend.solace.utils import (
    convert_ts,
    intraday_odd_quo_convert,
    intraday_odd_tic_convert,
    login_check,
)
from quorvex.constant import Action, Exchange, SecurityType
from quorvex.utils import raise_resp_error


@pytest.mark.parametrize(
    "status_code,resp,cls,text",
    [
        (
            401,
            {"response": {"detail": "token expired"}},
            error.TokenError,
            r"token was refused \(status 401\)",
        ),
        (503, {"response": {"detail": "down until 08:00"}}, error.SystemMaintenance, "under maintenance"),
        (
            500,
            {"response": {"detail": "oops"}},
            error.ServiceError,
            "refused the request with status 500: oops",
        ),
        (400, {"status": {"status_code": 400}}, error.ServiceError, "status 400"),
        (0, {}, error.ServiceError, "carried no status code"),
        (404, None, error.ServiceError, "status 404"),
    ],
)
def test_refusals_map_to_errors(status_code, resp, cls, text):
    with pytest.raises(cls, match=text) as caught:
        raise_resp_error(status_code, resp, object())
    assert caught.value.status_code == status_code
    assert caught.value.detail == ((resp or {}).get("response") or {}).get("detail", "")
    assert isinstance(caught.value, error.ServiceError)


def test_a_successful_status_raises_nothing():
    assert raise_resp_error(200, {}, None) is None


def test_timeout_error_hides_its_payload():
    payload = {"order": {"ca": "S3CR3T"}}
    caught = error.TimeoutError("api/v1/order/reserve_stock", payload)
    assert isinstance(caught, builtins.TimeoutError)
    assert caught.payload is payload and caught.topic == "api/v1/order/reserve_stock"
    assert "S3CR3T" not in str(caught) and "S3CR3T" not in repr(caught)
    assert "api/v1/order/reserve_stock" in str(caught)


@pytest.mark.parametrize(
    "err", [error.TokenError(401, "x"), error.TimeoutError("t", {}), error.ServiceError(1)]
)
def test_errors_survive_pickling(err):
    again = pickle.loads(pickle.dumps(err))
    assert type(again) is type(err) and str(again) == str(err)


@pytest.mark.parametrize(
    "person_id,expected",
    [
        ("A123456789", True),
        ("a123456789", True),
        ("F131104093", True),
        ("A123456788", False),
        ("A323456789", False),
        ("A12345678", False),
        ("1234567890", False),
        ("", False),
        (None, False),
        (12345, False),
        ("A12345678\uff19", False),
        ("A800000014", True),
        ("AC01234567", True),
        ("AC01234568", False),
        ("A500000014", False),
    ],
)
def test_login_check(person_id, expected):
    assert login_check(person_id) is expected


def test_convert_ts_gives_a_naive_local_datetime():
    when = convert_ts(1568768168)
    assert when.tzinfo is None and when == datetime.datetime.fromtimestamp(1568768168)
    assert convert_ts(0.5).microsecond == 500000
    with pytest.raises(TypeError, match="epoch seconds as a number"):
        convert_ts("1568768168")


ODD_TICK = {
    "Code": "2330",
    "Date": "2024/01/02",
    "Time": "09:00:01.250000",
    "Close": [600.5],
    "Volume": [12],
    "TickType": [1],
    "Simtrade": 0,
}
ODD_QUOTE = {
    "Code": "2330",
    "Date": "2024-01-02",
    "Time": "09:00:01",
    "BidPrice": [600, 599.5],
    "BidVolume": [10, 3],
    "AskPrice": [601],
    "AskVolume": [7],
    "Simtrade": 1,
}


def test_odd_lot_tick_conversion():
    assert intraday_odd_tic_convert(ODD_TICK) == {
        "code": "2330",
        "datetime": datetime.datetime(2024, 1, 2, 9, 0, 1, 250000),
        "close": 600.5,
        "volume": 12,
        "tick_type": 1,
        "simtrade": False,
    }


def test_odd_lot_quote_conversion():
    assert intraday_odd_quo_convert(ODD_QUOTE) == {
        "code": "2330",
        "datetime": datetime.datetime(2024, 1, 2, 9, 0, 1),
        "bid_price": [600.0, 599.5],
        "bid_volume": [10, 3],
        "ask_price": [601.0],
        "ask_volume": [7],
        "simtrade": True,
    }


@pytest.mark.parametrize(
    "convert,message",
    [
        (intraday_odd_tic_convert, None),
        (intraday_odd_tic_convert, ["2330"]),
        (intraday_odd_tic_convert, dict(ODD_TICK, Close="high")),
        (intraday_odd_tic_convert, {"Close": 1}),
        (intraday_odd_quo_convert, dict(ODD_QUOTE, AskPrice=None)),
        (intraday_odd_quo_convert, {"Code": 2330}),
    ],
)
def test_odd_lot_conversion_refuses_other_shapes(convert, message):
    assert convert(message) is None


def test_odd_lot_time_is_none_when_unreadable():
    assert intraday_odd_tic_convert(dict(ODD_TICK, Time="late"))["datetime"] is None


def test_enumerations_print_as_their_values():
    assert "{}|{:>5}".format(Action.Buy, Exchange.OTC) == "Buy|  OTC" and str(SecurityType.Stock) == "STK"
