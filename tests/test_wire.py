import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvex import _wire


# Bitcoin alphabet. (The backend's Base58Encoder and base58 namespace hand these functions on;
# the token login's tests go through them.)
@pytest.mark.parametrize(
    "raw,text",
    [
        (b"", b""),
        (b"a", b"2g"),
        (b"hello world", b"StV1DL6CwTryKyV"),
        (b"\x00\x00\x00\x28\x7f\xb4\xcd", b"111233QC4"),
        (b"\x00" * 3, b"111"),
    ],
)
def test_known_vectors(raw, text):
    assert _wire.b58encode(raw) == text
    assert _wire.b58decode(text) == raw
    assert _wire.b58decode(text.decode()) == raw


@given(st.binary(max_size=64))
def test_round_trip(raw):
    assert _wire.b58decode(_wire.b58encode(raw)) == raw


@pytest.mark.parametrize("bad", ["0OIl", "abc def"])
def test_bad_text_is_a_value_error(bad):
    with pytest.raises(ValueError, match="invalid base58 character"):
        _wire.b58decode(bad)


def test_wrong_type_names_the_function():
    with pytest.raises(TypeError, match="b58encode expects bytes or str"):
        _wire.b58encode(12)
