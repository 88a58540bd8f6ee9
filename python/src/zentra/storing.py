"""Dataframes as new pairs: layouts that columns fit, and columns as bytes of records."""

from __future__ import annotations

import contextlib
import decimal
from collections.abc import Sequence
from typing import Any, Optional, Union

import numpy as np
import pandas as pd

from .errors import ArgumentError, DuplicateKeyError, FieldError, FieldTypeError, LayoutError
from .files import create, erase
from .keys import KeyLike
from .layouts import Field, Layout, PathLike, as_layout, name_of
from .records import File
from .recordvalues import RecordValues
from .values import (LEAST, MOST, Value, boolean_bytes, date_form, is_text,
                     is_whole)

_SHOWN = 5
_LOAD_BYTES = 4 << 20  # of records handed to the library at a time


def write_pandas(frame: pd.DataFrame, name: PathLike, layout: Union[Layout, str, PathLike, None] = None,
                 keys: Union[KeyLike, Sequence[KeyLike], None] = None, *, duplicates: str = "raise",
                 longest: Optional[int] = None, encoding: str = "utf-8", errors: str = "strict",
                 save_layout: bool = False) -> int:
    """Makes a pair of a dataframe by one bulk load; returns how many records it has.

    layout, keys, longest, save_layout  as for create(); without a layout layout_of() makes one
    duplicates  what becomes of rows whose key another row has in an index without duplicates:
                "raise" DuplicateKeyError, or "drop" all but the first

    Each field takes the column of its name; fields without a column are null. Columns that are no
    field are an error. The dataframe's index is not written. Whatever fails leaves no pair behind.
    Raises FieldError with the row, counted from 0, and the field; PairExistsError; LayoutError.
    """
    if not isinstance(frame, pd.DataFrame):
        raise FieldTypeError(f"a dataframe is wanted, not {type(frame).__name__}")
    if duplicates not in ("raise", "drop"):
        raise ArgumentError(f'duplicates: "raise" or "drop", not {duplicates!r}', code=102)
    pair = name_of(name)
    given = as_layout(layout, pair) or layout_of(frame, encoding=encoding)
    strange = [str(column) for column in frame.columns if column not in given]
    if strange:
        raise LayoutError(f"the layout has no field {', '.join(strange)}", pair=pair)
    if len(set(frame.columns)) != len(frame.columns):
        raise LayoutError("two columns have one name", pair=pair)
    if longest is None and given.tail is not None:
        longest = given.end + max(1, _longest_tail(frame, given, encoding, errors))
    file = create(pair, given, keys, longest=longest, exclusive=True, transactions=False,
                  encoding=encoding, errors=errors, save_layout=save_layout)
    try:
        with file:
            _load(frame, file, duplicates)
            return len(file)
    except BaseException:
        erase(pair)
        raise


def _longest_tail(frame: pd.DataFrame, layout: Layout, encoding: str, errors: str) -> int:
    name = layout.tail.name
    encoding = layout.tail.encoding or encoding
    longest = 0
    for value in frame[name].tolist() if name in frame else ():
        if isinstance(value, str):
            with contextlib.suppress(UnicodeEncodeError):  # told where it is stored
                longest = max(longest, len(value.encode(encoding, errors)))
        elif isinstance(value, bytes):
            longest = max(longest, len(value))
    return longest


def _load(frame: pd.DataFrame, file: File, duplicates: str) -> None:
    pair_open = file.bulk
    length, least = pair_open.length, pair_open.least
    portion = max(1, _LOAD_BYTES // length)
    pair_open.load_begin()
    for start in range(0, len(frame), portion):
        part = frame.iloc[start:start + portion]
        count = len(part)
        records = np.zeros((count, length), dtype="u1")
        lengths = np.full(count, least, dtype="i4") if pair_open.is_variable else None
        for field in file.layout:
            column = part[field.name] if field.name in part else None
            stored = stored_column(file.values, field, column, count, start)
            if not field.is_tail:
                records[:, field.offset:field.offset + field.length] = stored
                continue
            for at, data in enumerate(stored):
                if least + len(data) > length:
                    raise FieldError(f"a text or bytes of {len(data)} bytes; the pair's records have "
                                     f"room for {length - least}", pair=file.name,
                                     record=start + at, field=field.name)
                records[at, least:least + len(data)] = np.frombuffer(data, "u1")
                lengths[at] = least + len(data)
        pair_open.load(records.reshape(-1).view("i1"), lengths, count)
    refused, numbers = pair_open.load_end(_SHOWN)
    if refused and duplicates == "raise":
        rows = ", ".join(str(number - 1) for number in numbers)
        raise DuplicateKeyError(f'"{file.name}": {refused} rows have the keys of others: {rows}'
                                f"{' ...' if refused > len(numbers) else ''}", code=100,
                                status="2222", pair=file.name)


def stored_column(values: RecordValues, field: Field, column: Optional[pd.Series], count: int,
                  start: int) -> Any:
    """The bytes of a field for each row: an array of shape (rows, length), a list for the tail."""
    value = values.by_name[field.name]
    if column is None:
        if value.null is None:
            raise FieldError("there is no column for it", pair=values.pair, field=field.name)
        return [b""] * count if field.is_tail else _repeated(value.null, count)
    fast = None if field.is_tail else _fast(values, field, column, value)
    if fast is None:
        return _one_by_one(values, field, column, start)
    return fast


def _repeated(data: bytes, count: int) -> np.ndarray:
    return np.tile(np.frombuffer(data, "u1"), (count, 1))


def _one_by_one(values: RecordValues, field: Field, column: pd.Series, start: int) -> Any:
    stored = [values.store_value(field.name, _plain(field, given), start + at)
              for at, given in enumerate(column.tolist())]
    if field.is_tail:
        return stored
    return np.frombuffer(b"".join(stored), "u1").reshape(len(stored), field.length)


def _plain(field: Field, value: Any) -> Any:
    """A value as values.py takes it."""
    if value is None or value is pd.NA or value is pd.NaT:
        return None
    if isinstance(value, float) and value != value:
        is_real = field.type in ("float", "double") and not field.may_be_null
        return value if is_real else None
    if field.meaning in ("date", "days") and isinstance(value, pd.Timestamp):
        return value.date() if value == value.normalize() else value
    if field.meaning == "decimal" and isinstance(value, float):
        return decimal.Decimal(repr(value))
    return value


def _fast(values: RecordValues, field: Field, column: pd.Series,
          value: Value) -> Optional[np.ndarray]:
    """The same for columns of the types that read_pandas() gives, all rows at once; None where rows
    have to be looked at one by one, if only to say which of them is wrong."""
    absent = column.isna().to_numpy(dtype=bool)
    kind = getattr(column.dtype, "kind", "O")
    if not len(column):
        return np.zeros((0, field.length), "u1")
    if absent.any() and value.null is None:
        return None
    if field.meaning in ("date", "days"):
        stored = _fast_days(field, column, absent) if kind == "M" else None
    elif field.meaning == "boolean":
        stored = _fast_booleans(field, column) if kind == "b" else None
    elif field.meaning == "plain" and field.type in MOST and kind in "iu":
        stored = _fast_whole(field, _numbers(column, getattr(column.dtype, "numpy_dtype", column.dtype)))
    elif field.meaning == "plain" and field.type in ("float", "double") and kind == "f":
        stored = _fast_real(field, _numbers(column, "f8", np.nan))
    elif field.meaning == "decimal" and kind == "f":
        stored = _fast_decimals(field, _numbers(column, "f8"))
    elif field.meaning == "plain" and is_text(field) and kind == "O":
        return _fast_texts(values, field, column, absent)
    else:
        return None
    if stored is not None and absent.any():
        stored[absent] = np.frombuffer(value.null, "u1")
    return stored


def _fast_texts(values: RecordValues, field: Field, column: pd.Series,
                absent: np.ndarray) -> Optional[np.ndarray]:
    texts = column.tolist()
    for at in np.flatnonzero(absent):
        texts[at] = ""
    encoding, length = field.encoding or values.encoding, field.length
    try:
        stored = [text.encode(encoding).ljust(length) for text in texts]
    except (AttributeError, UnicodeEncodeError):
        return None
    data = b"".join(stored)
    if len(data) != length * len(texts) or any(len(text) != length for text in stored):
        return None
    return np.frombuffer(data, "u1").reshape(len(texts), length)


def _bytes_of(array: np.ndarray) -> np.ndarray:
    return np.array(np.ascontiguousarray(array).view("u1").reshape(len(array), array.dtype.itemsize))


def _numbers(column: pd.Series, dtype: Any, absent: Any = 0) -> np.ndarray:
    return column.to_numpy(dtype=dtype, na_value=absent) if column.isna().any() else np.asarray(
        column, dtype=dtype)


def _fast_whole(field: Field, numbers: np.ndarray) -> Optional[np.ndarray]:
    least = LEAST[field.type] + (1 if field.may_be_null else 0)
    if numbers.min() < least or numbers.max() > MOST[field.type]:
        return None
    return _bytes_of(numbers.astype(">i2" if field.type == "int" else ">i4"))


def _fast_real(field: Field, numbers: np.ndarray) -> Optional[np.ndarray]:
    with np.errstate(over="ignore"):
        stored = numbers.astype("=f4" if field.type == "float" else "=f8")
    if (np.isinf(stored) & ~np.isinf(numbers)).any():
        return None
    return _bytes_of(stored)


def _fast_decimals(field: Field, numbers: np.ndarray) -> Optional[np.ndarray]:
    """Of floats that are the nearest to a decimal with so many digits."""
    if not np.isfinite(numbers).all() or (np.abs(numbers) * 10.0 ** field.decimals > 2.0 ** 53).any():
        return None
    scaled = np.rint(numbers * 10.0 ** field.decimals)
    if (scaled / 10.0 ** field.decimals != numbers).any():
        return None
    whole = scaled.astype("i8")
    if is_whole(field):
        return _fast_whole(field, whole)
    texts = [b"%0*d" % (field.length, number) for number in whole.tolist()]
    if any(len(text) > field.length for text in texts):
        return None
    return np.frombuffer(b"".join(texts), "u1").reshape(len(texts), field.length).copy()


def _fast_booleans(field: Field, column: pd.Series) -> np.ndarray:
    flags = _numbers(column, bool, False)
    yes, no = (np.frombuffer(data, "u1") for data in boolean_bytes(field))
    return np.where(flags[:, None], yes, no)


def _fast_days(field: Field, column: pd.Series, absent: np.ndarray) -> Optional[np.ndarray]:
    if getattr(column.dtype, "tz", None) is not None or not field.form.isascii():
        return None
    moments = column.to_numpy()
    days = moments.astype("M8[D]")
    if (days.astype(moments.dtype)[~absent] != moments[~absent]).any():
        return None
    days = np.where(absent, np.datetime64("2000-01-01", "D"), days)
    if field.meaning == "days":
        return _fast_whole(field, (days - np.datetime64(field.form, "D")).astype("i8"))
    months = days.astype("M8[M]")
    years = days.astype("M8[Y]").astype("i8") + 1970
    numbers = {"Y": years, "M": months.astype("i8") % 12 + 1,
               "D": (days - months.astype("M8[D]")).astype("i8") + 1}
    _, runs = date_form(field.form)
    if ("Y", 2) in runs and ((years < 1969) | (years > 2068)).any():
        return None
    text = np.full((len(days), max(field.length, len(field.form))), ord(" "), "u1")
    at = 0
    for letter, length in runs:
        for place in range(length):
            digit = (numbers[letter] // 10 ** (length - 1 - place) % 10 + ord("0")
                     if letter in "YMD" else ord(letter))
            text[:, at + place] = digit
        at += length
    if not is_whole(field):
        return text[:, :field.length]
    whole = np.zeros(len(days), "i8")
    for place in range(len(field.form)):
        whole = whole * 10 + (text[:, place] - ord("0"))
    return _fast_whole(field, whole)


def layout_of(frame: pd.DataFrame, *, encoding: str = "utf-8") -> Layout:
    """A layout that the columns of a dataframe fit: whole numbers as int or long, floats as double,
    booleans as Y and N, dates as YYYYMMDD, texts as char of the longest one's length; columns with
    nulls may be null. Raises LayoutError for any other column."""
    lines = []
    for name in frame.columns:
        column = frame[name]
        null = " null" if column.isna().any() else ""
        lines.append(f"{name} {_type_for(str(name), column, null, encoding)}")
    return Layout("\n".join(lines), file="the dataframe")


def _type_for(name: str, column: pd.Series, null: str, encoding: str) -> str:
    kind = getattr(column.dtype, "kind", "O")
    known = column.dropna()
    if kind == "b":
        return f"char next 1 boolean Y N{null}"
    if kind == "M":
        return f"char next 8 date YYYYMMDD{null}"
    if kind == "f":
        return "double next null"
    if kind in "iu":
        least, most = (int(known.min()), int(known.max())) if len(known) else (0, 0)
        for type_name in ("int", "long"):
            if LEAST[type_name] < least and most <= MOST[type_name]:
                return f"{type_name} next{null}"
    elif all(isinstance(value, str) for value in known):
        try:
            length = max((len(value.encode(encoding)) for value in known), default=1)
        except UnicodeEncodeError:
            length = 0
        if 1 <= max(length, 1) <= 32000:
            return f"char next {max(length, 1)}{null}"
    raise LayoutError(f"no field is known for column {name} ({column.dtype}): give a layout")


__all__ = ["layout_of", "write_pandas"]
