"""Wire helpers of the quorvex core: Base58 with the Bitcoin alphabet."""

from typing import Union

def b58encode(data: Union[bytes, bytearray, memoryview]) -> bytes:
    """Encode bytes as Base58; returns ASCII bytes."""

def b58decode(text: Union[str, bytes]) -> bytes:
    """Decode Base58 text (str or ASCII bytes) to bytes; ValueError on a bad character."""
