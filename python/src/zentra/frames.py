"""Whole pairs as pandas dataframes."""

from __future__ import annotations

import contextlib
import decimal
from collections.abc import Iterator, Sequence
from typing import Any, Optional, Union

import numpy as np
import pandas as pd

from .arrays import PairLike, Source, source_of
from .errors import ArgumentError, FieldError
from .layouts import Field, Layout, PathLike
from .recordvalues import RecordValues
from .values import is_text, is_whole, null_bytes

_FIRST_DAY, _LAST_DAY = np.datetime64("1677-09-22"), np.datetime64("2262-04-10")  # of a Timestamp


def read_pandas(pair: PairLike, layout: Union[Layout, str, PathLike, None] = None, *,
                fields: Optional[Sequence[str]] = None, first: int = 1, last: Optional[int] = None,
                numbers: bool = False, decimals: str = "float", encoding: str = "utf-8",
                errors: str = "strict", invalid: str = "raise") -> pd.DataFrame:
    """All records of a pair as a dataframe with a column for each field.

    Arguments and what becomes of records are as for read_numpy(); `numbers` makes the record numbers
    the index. Texts are of the type "string", trimmed as the layout says, and bytes outside the
    encoding raise FieldError. Nulls are NaN in float columns, NaT in dates, NA in texts, in whole
    numbers that may be null (Int16, Int32) and in booleans that may be null (boolean).

    decimals  "float" gives float64, "exact" objects of decimal.Decimal

    Dates are datetime64[ns]; one before 1677 or after 2262, as 9999-12-31, has no place there: it
    raises FieldError, or becomes NaT with invalid="null".
    """
    with _source(pair, layout, fields=fields, first=first, last=last, decimals=decimals,
                 encoding=encoding, errors=errors, invalid=invalid) as source:
        parts = []
        size = source.expected + 1
        while True:
            part, full = _frame(source, size, decimals, numbers)
            parts.append(part)
            if not full:
                break
            size = 4096
        parts = parts[:1] + [part for part in parts[1:] if len(part)]
        return parts[0] if len(parts) == 1 else pd.concat(parts, ignore_index=not numbers)


def iter_pandas(pair: PairLike, layout: Union[Layout, str, PathLike, None] = None,
                records: int = 100_000, *, numbers: bool = False, decimals: str = "float",
                **options: Any) -> Iterator[pd.DataFrame]:
    """The same in dataframes of so many records, one after the other, for pairs beyond memory."""
    if not isinstance(records, int) or records < 1:
        raise ArgumentError(f"{records!r} records at a time", code=102)
    return _frames_in_turn(pair, layout, records, numbers, decimals, options)


def _frames_in_turn(pair: PairLike, layout: Any, records: int, numbers: bool, decimals: str,
                    options: dict[str, Any]) -> Iterator[pd.DataFrame]:
    with _source(pair, layout, **{"fields": None, "decimals": decimals, **options}) as source:
        full = True
        while full:
            frame, full = _frame(source, records, decimals, numbers)
            if len(frame):
                yield frame


def _source(pair: PairLike, layout: Any, *, decimals: str,
            **options: Any) -> contextlib.AbstractContextManager[Source]:
    if decimals not in ("float", "exact"):
        raise ArgumentError(f'decimals are "float" or "exact", not {decimals!r}', code=102)
    return source_of(pair, layout, numbers=True, raw=False, unscaled=decimals == "exact", **options)


def _frame(source: Source, size: int, decimals: str, numbers: bool) -> tuple[pd.DataFrame, bool]:
    columns = source.columns(size)
    places = np.empty(size, "i4")
    count = source.fill(columns, places, 0, size)
    places = places[:count]
    series = {field.name: _series(source, field, column[:count], places, decimals)
              for field, column in zip(source.fields, columns)}
    index = pd.Index(places, name="number") if numbers else pd.RangeIndex(count)
    return pd.DataFrame(series, index=index, copy=False), count == size


def _series(source: Source, field: Field, column: np.ndarray, places: np.ndarray,
            decimals: str) -> Any:
    values = source.values
    if field.meaning in ("date", "days"):
        return _timestamps(values, field, column, places)
    if field.meaning == "decimal":
        return column if decimals == "float" else _exact(column, field)
    if field.meaning == "boolean":
        return column if column.dtype == bool else pd.arrays.BooleanArray(column == 1, column < 0)
    if is_text(field):
        return _strings(values, field, column, places)
    if field.type == "bytes":
        return _byte_strings(field, column)
    if is_whole(field) and field.may_be_null:
        absent = np.isnan(column)
        whole = np.where(absent, 0, column).astype("i2" if field.type == "int" else "i4")
        return pd.arrays.IntegerArray(whole, absent)
    return column


def _timestamps(values: RecordValues, field: Field, column: np.ndarray, places: np.ndarray) -> Any:
    outside = (column < _FIRST_DAY) | (column > _LAST_DAY)
    if outside.any():
        at = int(np.flatnonzero(outside)[0])
        if not values.lenient:
            raise FieldError(f"{column[at]} is beyond what a Timestamp can be", pair=values.pair,
                             record=int(places[at]), field=field.name)
        column = np.where(outside, np.datetime64("NaT"), column)
    return column.astype("M8[ns]")


def _exact(column: np.ndarray, field: Field) -> np.ndarray:
    least = np.iinfo("i8").min
    made = np.empty(len(column), dtype=object)
    for at, number in enumerate(column.tolist()):
        made[at] = None if number == least else decimal.Decimal(number).scaleb(-field.decimals)
    return made


def _strings(values: RecordValues, field: Field, column: np.ndarray, places: np.ndarray) -> Any:
    made = np.empty(len(column), dtype=object)
    if field.is_tail:
        made[:] = column
    else:
        load = values.by_name[field.name].load
        texts = column.tolist()
        encoding = field.encoding or values.encoding
        if not field.keeps_blanks and not field.may_be_null and encoding == "utf-8":
            load = bytes.decode
        try:
            made[:] = [load(data) if data else "" for data in texts]
        except ValueError:
            value = values.by_name[field.name]
            made[:] = [values.load_field(value, data, int(number))
                       for data, number in zip(texts, places)]
        if field.may_be_null:
            made[made == ""] = None
    made[pd.isna(made)] = pd.NA
    return pd.arrays.StringArray(made)


def _byte_strings(field: Field, column: np.ndarray) -> np.ndarray:
    made = np.empty(len(column), dtype=object)
    if field.is_tail:
        made[:] = column
        return made
    null = null_bytes(field) if field.may_be_null else None
    data, width = column.tobytes(), field.length
    for at in range(len(column)):
        here = data[at * width:(at + 1) * width]
        made[at] = None if here == null else here
    return made


__all__ = ["iter_pandas", "read_pandas"]
