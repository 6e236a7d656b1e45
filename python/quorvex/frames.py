"""DataFrames of the library's records (pandas is optional and imported only when asked).

One column naming style: lower-case snake_case names; time stamps become time-zone-aware
Taipei times.
"""

import datetime
from typing import TYPE_CHECKING, Any, Dict, List, Sequence, TypeVar

if TYPE_CHECKING:  # pragma: no cover
    import pandas

__all__ = ["RecordList", "TAIPEI", "columns_frame", "records_frame"]

T = TypeVar("T")
# Taiwan keeps one offset all year (no daylight saving since 1979).
TAIPEI = datetime.timezone(datetime.timedelta(hours=8), "Asia/Taipei")
# History time stamps count Taipei wall-clock time as if it were UTC, in nanoseconds.
_NANOSECOND_STAMPS = ("ts",)
_DATE_COLUMNS = ("date",)


def _pandas() -> Any:
    try:
        import pandas
    except ImportError:
        raise ImportError(
            "DataFrames need pandas, which is optional: pip install 'quorvex[pandas]'"
        ) from None
    return pandas


def _snake(name: str) -> str:
    return name.lower()  # the records' columns are one word ("Open") or snake_case already


def _taipei_frame(frame: "pandas.DataFrame") -> "pandas.DataFrame":
    pandas = _pandas()
    for column in frame.columns:
        if column in _NANOSECOND_STAMPS and frame[column].dtype.kind in "iu":
            frame[column] = pandas.to_datetime(frame[column], unit="ns").dt.tz_localize(TAIPEI)
        elif column in _DATE_COLUMNS and frame[column].dtype == object and len(frame):
            parsed = pandas.to_datetime(frame[column], errors="coerce")
            if parsed.notna().all():
                frame[column] = parsed.dt.tz_localize(TAIPEI)
    return frame


def columns_frame(columns: Dict[str, Sequence[Any]]) -> "pandas.DataFrame":
    """A DataFrame of parallel columns (``Ticks``, ``Kbars``, ``DailyQuotes``)."""
    frame = _pandas().DataFrame({_snake(name): list(values) for name, values in columns.items()})
    return _taipei_frame(frame)


def records_frame(records: Sequence[Any]) -> "pandas.DataFrame":
    """A DataFrame with one row per record (snapshots, positions, ...)."""
    rows: List[Dict[str, Any]] = [
        {_snake(k): (v.value if hasattr(v, "value") else v) for k, v in r.dict().items()} for r in records
    ]
    return _taipei_frame(_pandas().DataFrame(rows))


class RecordList(List[T]):
    """A list of records with ``df()``: one DataFrame row per record."""

    def df(self) -> "pandas.DataFrame":
        """The records as a pandas DataFrame (pandas is imported now)."""
        return records_frame(self)
