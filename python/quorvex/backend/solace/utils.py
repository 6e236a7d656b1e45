"""Conversions and helpers of the message-bus backend.

Legacy odd-lot messages (topics starting "TIC" or "QUO" and ending "ODDLOT") arrive as dicts
with capitalised keys; the converters turn them into dicts with the library's lower-case
names, or None when a message is not of that shape:

- tick in: ``Code``, ``Date`` ("YYYY/MM/DD" or "YYYY-MM-DD"), ``Time`` ("HH:MM:SS[.ffffff]"),
  ``Close``, ``Volume`` (shares), optional ``TickType`` (0 unknown, 1 buy, 2 sell) and
  ``Simtrade``; a number or a one-element list each.
  Out: ``code``, ``datetime`` (naive, None when unreadable), ``close``, ``volume``,
  ``tick_type``, ``simtrade``.
- quote in: ``Code``, ``Date``, ``Time``, lists ``BidPrice``, ``BidVolume``, ``AskPrice``,
  ``AskVolume``, optional ``Simtrade``.
  Out: ``code``, ``datetime``, ``bid_price``, ``bid_volume``, ``ask_price``, ``ask_volume``,
  ``simtrade``.

The contract master is cached in one msgpack file per user, written after each complete
download and read back by ``new_contracts`` only on the trading day it was written.
"""

import contextlib
import datetime
import os
import sys
import tempfile
import types
from enum import Enum
from pathlib import Path
from typing import Any, Dict, List, Optional, Union

import msgpack
from pydantic import Field

from quorvex import _wire
from quorvex.common import BaseModel
from quorvex.constant import FetchStatus, SecurityType
from quorvex.contracts import Contracts
from quorvex.utils import log

__all__ = [
    "Base58Encoder",
    "CONTRACTS_DIR_ENV",
    "ScannerCountLimit",
    "base58",
    "contracts_file_path",
    "convert_ts",
    "dump_contracts_file",
    "intraday_odd_quo_convert",
    "intraday_odd_tic_convert",
    "login_check",
    "new_contracts",
    "trading_day",
]


def convert_ts(ts: Union[int, float]) -> datetime.datetime:
    """Epoch seconds to the naive local date and time used in ``order_datetime``."""
    if isinstance(ts, bool) or not isinstance(ts, (int, float)):
        raise TypeError("convert_ts expects epoch seconds as a number, got {}".format(type(ts).__name__))
    return datetime.datetime.fromtimestamp(ts)


# ---------------------------------------------------------------- legacy odd-lot messages


def _scalar(value: Any) -> Any:
    if isinstance(value, (list, tuple)):
        return value[0] if len(value) == 1 else None
    return value


def _message_time(quote: Dict[str, Any]) -> Optional[datetime.datetime]:
    date, time = quote.get("Date"), quote.get("Time")
    if not isinstance(date, str) or not isinstance(time, str):
        return None
    text = "{} {}".format(date.replace("/", "-"), time)
    for pattern in ("%Y-%m-%d %H:%M:%S.%f", "%Y-%m-%d %H:%M:%S"):
        try:
            return datetime.datetime.strptime(text, pattern)
        except ValueError:
            continue
    return None


def _number_list(value: Any, kind: type) -> Optional[List[Any]]:
    if not isinstance(value, (list, tuple)):
        return None
    try:
        return [kind(item) for item in value]
    except (TypeError, ValueError):
        return None


def intraday_odd_tic_convert(quote: Any) -> Optional[Dict[str, Any]]:
    """A legacy odd-lot tick message as a tick dict; None when it is not one."""
    if not isinstance(quote, dict) or not isinstance(quote.get("Code"), str):
        return None
    try:
        close = float(_scalar(quote.get("Close")))
        volume = int(_scalar(quote.get("Volume")))
        tick_type = int(_scalar(quote.get("TickType", 0)))
    except (TypeError, ValueError):
        return None
    return {
        "code": quote["Code"],
        "datetime": _message_time(quote),
        "close": close,
        "volume": volume,
        "tick_type": tick_type,
        "simtrade": bool(_scalar(quote.get("Simtrade", False))),
    }


def intraday_odd_quo_convert(quote: Any) -> Optional[Dict[str, Any]]:
    """A legacy odd-lot bid/ask message as a quote dict; None when it is not one."""
    if not isinstance(quote, dict) or not isinstance(quote.get("Code"), str):
        return None
    converted: Dict[str, Any] = {"code": quote["Code"], "datetime": _message_time(quote)}
    for source, target, kind in (
        ("BidPrice", "bid_price", float),
        ("BidVolume", "bid_volume", int),
        ("AskPrice", "ask_price", float),
        ("AskVolume", "ask_volume", int),
    ):
        column = _number_list(quote.get(source), kind)
        if column is None:
            return None
        converted[target] = column
    converted["simtrade"] = bool(_scalar(quote.get("Simtrade", False)))
    return converted


# ---------------------------------------------------------------- person identifiers

# Letter values of Taiwan identity numbers (A=10 ... with I, O, W, Z placed out of order).
_ID_LETTER = {letter: value for value, letter in enumerate("ABCDEFGHJKLMNPQRSTUVXYWZIO", start=10)}
_ID_WEIGHTS = (8, 7, 6, 5, 4, 3, 2, 1, 1)


def login_check(person_id: Any) -> bool:
    """True when ``person_id`` looks like a Taiwan identity or resident certificate number.

    Accepts the national identity number (letter, 1 or 2, eight digits), the resident
    certificate numbers of the new (letter, 8 or 9, eight digits) and the old (two letters,
    eight digits) forms, each with its check digit. Never raises.
    """
    if not isinstance(person_id, str) or len(person_id) != 10:
        return False
    text = person_id.upper()
    first = _ID_LETTER.get(text[0])
    if first is None or not text[2:].isdigit() or not text[2:].isascii():
        return False
    if text[1] in "1289":
        second = int(text[1])
    elif text[1] in _ID_LETTER:
        second = _ID_LETTER[text[1]] % 10
    else:
        return False
    digits = [second] + [int(c) for c in text[2:]]
    total = first // 10 + (first % 10) * 9 + sum(d * w for d, w in zip(digits, _ID_WEIGHTS))
    return total % 10 == 0


# ---------------------------------------------------------------- Base58


class Base58Encoder:
    """Base58 (Bitcoin alphabet) with the signing library's encoder interface."""

    @staticmethod
    def encode(data: bytes) -> bytes:
        return _wire.b58encode(data)

    @staticmethod
    def decode(data: Union[str, bytes]) -> bytes:
        return _wire.b58decode(data)


base58 = types.SimpleNamespace(b58encode=_wire.b58encode, b58decode=_wire.b58decode)


class ScannerCountLimit(BaseModel):
    """How many rows a scanner may return: 1 to 200."""

    count: int = Field(default=100, ge=1, le=200)


# ---------------------------------------------------------------- contracts file

CONTRACTS_DIR_ENV = "QUORVEX_CONTRACTS_DIR"
_CONTRACTS_FILE = "contracts.msgpack"
_FILE_FORMAT = 1
_TAIPEI = datetime.timezone(datetime.timedelta(hours=8))


def trading_day() -> str:
    """The current trading day: today's date in Taipei, "YYYY-MM-DD"."""
    return datetime.datetime.now(_TAIPEI).date().isoformat()


def _cache_dir() -> Path:
    override = os.environ.get(CONTRACTS_DIR_ENV)
    if override:
        return Path(override).expanduser()
    if sys.platform == "win32":
        base = Path(os.environ.get("LOCALAPPDATA") or Path.home() / "AppData" / "Local")
    elif sys.platform == "darwin":
        base = Path.home() / "Library" / "Caches"
    else:
        base = Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache")
    return base / "quorvex"


def contracts_file_path() -> Path:
    """Where the contract master is cached (``QUORVEX_CONTRACTS_DIR`` overrides the folder)."""
    return _cache_dir() / _CONTRACTS_FILE


def _owned_by_user(path: Path) -> bool:
    # A cache folder another user controls could feed us altered contracts.
    getuid = getattr(os, "getuid", None)
    return getuid is None or path.stat().st_uid == getuid()


def _plain(value: Any) -> Any:
    if isinstance(value, Enum):
        return value.value
    if isinstance(value, (datetime.date, datetime.time)):
        return value.isoformat()
    return str(value)


def dump_contracts_file(contracts: Contracts) -> Optional[Path]:
    """Write the whole contract master to the contracts file atomically.

    Returns the file's path, or None when it could not be written (the reason is logged):
    a failed cache write must not fail the download that triggered it.
    """
    day = trading_day()
    document = {
        "format": _FILE_FORMAT,
        "trading_day": day,
        "host": getattr(contracts, "host", None),
        "contracts": {c.security_type.value: _unexpired(c.raw_contracts(), day) for c in contracts},
    }
    path = contracts_file_path()
    temp_name = None
    try:
        packed = msgpack.packb(document, use_bin_type=True, default=_plain)
        path.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
        if not _owned_by_user(path.parent):
            log.warning("contracts file not written: %s belongs to another user", path.parent)
            return None
        fd, temp_name = tempfile.mkstemp(prefix=".contracts-", suffix=".tmp", dir=str(path.parent))
        with os.fdopen(fd, "wb") as stream:
            stream.write(packed)
            stream.flush()
            os.fsync(stream.fileno())
        os.replace(temp_name, str(path))
        temp_name = None
        with contextlib.suppress(AttributeError):
            contracts.trading_day = day
        return path
    except (OSError, ValueError, TypeError) as error:
        log.warning("contracts file %s not written: %s", path, error)
        return None
    finally:
        if temp_name is not None:
            with contextlib.suppress(OSError):
                os.unlink(temp_name)


def _unexpired(raw_contracts: List[Dict[str, Any]], day: str) -> List[Dict[str, Any]]:
    """The contracts still listed on `day`: a future or option past its delivery date is gone."""
    return [
        raw
        for raw in raw_contracts
        if not (isinstance(raw, dict) and isinstance(raw.get("delivery_date"), str))
        or not raw["delivery_date"]
        or raw["delivery_date"].replace("/", "-") >= day
    ]


def _read_contracts_file(path: Path) -> Optional[Dict[str, Any]]:
    try:
        if not path.is_file() or not _owned_by_user(path):
            return None
        document = msgpack.unpackb(path.read_bytes(), raw=False)
    except (OSError, ValueError, msgpack.UnpackException) as error:
        log.warning("contracts file %s unreadable, starting empty: %s", path, error)
        return None
    if not isinstance(document, dict) or document.get("format") != _FILE_FORMAT:
        log.warning("contracts file %s has an unknown layout, starting empty", path)
        return None
    if document.get("trading_day") != trading_day():
        return None
    return document if isinstance(document.get("contracts"), dict) else None


def new_contracts() -> Contracts:
    """A contract master: loaded from today's contracts file when there is one, else empty.
    A download into it replaces what the file brought (see ``ProductContracts``)."""
    contracts = Contracts()
    document = _read_contracts_file(contracts_file_path())
    if not document:
        return contracts
    day = document["trading_day"]
    pages = document["contracts"]
    for security_type in SecurityType:
        raw = pages.get(security_type.value)
        if isinstance(raw, list):
            collection = contracts.of(security_type)
            collection.append(raw)  # written today without expired contracts
            collection.set_status_fetched()
    contracts.status = FetchStatus.Fetched
    host = document.get("host")
    contracts.host = host if isinstance(host, str) else None
    contracts.trading_day = day
    return contracts
