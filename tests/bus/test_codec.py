"""The wire codec at the binding boundary: what Python objects become on the bus, and back."""

import contextlib
import datetime
import decimal
import enum
import math
import re
from collections import OrderedDict

import msgpack
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from pymqlink import packb, unpackb


class Action(str, enum.Enum):
    Buy = "Buy"
    Sell = "Sell"


class Level(enum.IntEnum):
    Low = 1


class Plain(enum.Enum):
    Rod = "ROD"
    Pair = (1, 2)


scalars = (
    st.none()
    | st.booleans()
    | st.integers(-(2**63), 2**64 - 1)
    | st.floats(allow_nan=False)
    | st.text()
    | st.binary()
)
values = st.recursive(
    scalars,
    lambda children: (
        st.lists(children, max_size=5) | st.dictionaries(st.text(max_size=10), children, max_size=5)
    ),
    max_leaves=30,
)


@settings(max_examples=300)
@given(values)
def test_round_trip_and_agreement_with_the_reference_codec(value):
    data = packb(value)
    assert unpackb(data) == value
    assert msgpack.unpackb(data, raw=False, strict_map_key=False) == value
    assert unpackb(msgpack.packb(value, use_bin_type=True)) == value


def test_maps_keep_their_order_and_floats_stay_floats():
    decoded = unpackb(packb({"z": 2.0, "a": 1, "m": [1.0]}))
    assert list(decoded) == ["z", "a", "m"]
    assert type(decoded["z"]) is float and type(decoded["m"][0]) is float


@pytest.mark.parametrize(
    "value, expected",
    [
        (Action.Buy, "Buy"),
        (Level.Low, 1),
        (Plain.Rod, "ROD"),
        (Plain.Pair, [1, 2]),
        ({Action.Sell: 1}, {"Sell": 1}),
        (datetime.date(2024, 3, 5), "2024-03-05"),
        (datetime.datetime(2024, 3, 5, 9, 1, 2), "2024-03-05 09:01:02"),
        (datetime.datetime(2024, 3, 5, 9, 1, 2, 7), "2024-03-05 09:01:02.000007"),
        (datetime.datetime(2024, 3, 5, 9, 0, tzinfo=datetime.timezone.utc), "2024-03-05 09:00:00"),
        (datetime.time(13, 30), "13:30:00"),
        (decimal.Decimal("580.50"), "580.50"),
        ((1, (2, 3)), [1, [2, 3]]),
        (OrderedDict(b=1, a=2), {"b": 1, "a": 2}),
        (bytearray(b"\x00\x01"), b"\x00\x01"),
        (2**64 - 1, 2**64 - 1),
        (-(2**63), -(2**63)),
        (True, True),
    ],
)
def test_documented_encodings(value, expected):
    assert unpackb(packb(value)) == expected


class Foo:
    pass


@pytest.mark.parametrize(
    "value, error, message",
    [
        ({"order": {"price": Foo()}}, TypeError, "obj['order']['price']: cannot encode object of type Foo"),
        ({"items": [1, {"qty": 2**64}]}, OverflowError, "obj['items'][1]['qty']: int out of range"),
        ({"n": -(2**63) - 1}, OverflowError, "obj['n']: int out of range"),
        ({1: "x"}, TypeError, "obj[1]: map key of type int cannot be encoded; expected str"),
        ({"s": "\ud800"}, ValueError, "obj['s']: str cannot be encoded as UTF-8"),
        ({"when": {1, 2}}, TypeError, "obj['when']: cannot encode object of type set"),
    ],
)
def test_refusals_name_the_path(value, error, message):
    with pytest.raises(error, match=re.escape(message)):
        packb(value)


def test_containers_that_hold_themselves_are_refused():
    loop = []
    loop.append(loop)
    with pytest.raises(ValueError, match="nesting deeper than 100 levels"):
        packb(loop)


# The core refuses malformed msgpack (its own test has every case); the binding turns that into
# a ValueError, and refuses what it cannot give Python: extension types and text that is not UTF-8.
@pytest.mark.parametrize(
    "data, message",
    [
        (b"\xa5ab", "truncated msgpack"),
        (b"\xd4\x05\x09", "extension type 5 is not supported"),
        (b"\xa2\xff\xfe", "can't decode"),
    ],
)
def test_malformed_messages_raise_value_error(data, message):
    with pytest.raises(ValueError, match=message):
        unpackb(data)


@settings(max_examples=500)
@given(st.binary(max_size=64))
def test_arbitrary_bytes_never_crash(data):
    with contextlib.suppress(ValueError):
        unpackb(data)


def test_unpackb_accepts_bytes_like_and_refuses_others():
    assert unpackb(memoryview(packb({"a": 1}))) == {"a": 1}
    with pytest.raises(TypeError, match="unpackb expects bytes-like data, got str"):
        unpackb("x")


def test_nan_and_infinities_travel():
    out = unpackb(packb([math.inf, -math.inf, math.nan]))
    assert out[:2] == [math.inf, -math.inf] and math.isnan(out[2])
