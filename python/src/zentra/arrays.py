"""Whole pairs as NumPy arrays."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator, Sequence
from typing import Any, NamedTuple, Optional, Union

import numpy as np

from . import _zentra
from ._zentra import Form
from .errors import ArgumentError, LayoutError
from .layouts import Field, Layout, PathLike, as_layout, name_of
from .pairs import opened, room_in
from .records import File
from .recordvalues import RecordValues
from .values import is_text

LAST_NUMBER = (1 << 31) - 1
_SPARE = 1024  # records that may have come since they were counted

PairLike = Union[PathLike, File]


class Element(NamedTuple):
    """A column: the type of its elements, and how they are made of a field's bytes."""

    dtype: Any
    form: Optional[Form]  # None for the tail


def raw_element(field: Field) -> Element:
    """A field's bytes as NumPy understands them as they are."""
    if field.is_tail:
        return Element(object, None)
    kind = {"int": ">i2", "long": ">i4", "float": "=f4", "double": "=f8",
            "bytes": f"V{field.length}"}.get(field.type, f"S{field.length}")
    return Element(kind, Form.BYTES)


def element_of(field: Field, *, lenient: bool = False, unscaled: bool = False) -> Element:
    """The column that a field becomes. README: the table of types."""
    if field.is_tail:
        return Element(object, None)
    if field.meaning in ("date", "days"):
        return Element("M8[D]", Form.DAY)
    if field.meaning == "decimal":
        return Element("i8", Form.UNSCALED) if unscaled else Element("f8", Form.DECIMAL)
    if field.meaning == "boolean":
        return Element("i1" if field.may_be_null or lenient else "?", Form.BOOLEAN)
    if is_text(field):
        return Element(f"S{field.length}", Form.TEXT)
    if field.type == "bytes":
        return Element(f"V{field.length}", Form.BYTES)
    if field.may_be_null:
        return Element("f4" if field.type == "float" else "f8", Form.NUMBER_OR_NAN)
    return Element({"int": "i2", "long": "i4", "float": "f4", "double": "f8"}[field.type], Form.NUMBER)


class Source:
    """Records of a pair with numbers from `first` to `last`, on their way into columns."""

    def __init__(self, pair_open: _zentra.Open, name: str, layout: Layout, values: RecordValues, *,
                 fields: Optional[Sequence[str]], first: int, last: int, numbers: bool, raw: bool,
                 unscaled: bool = False) -> None:
        self.name = name
        self.values = values
        self.fields = list(layout) if fields is None else [_field(layout, f, name) for f in fields]
        lenient = values.lenient
        self.elements = [raw_element(f) if raw else
                         element_of(f, lenient=lenient, unscaled=unscaled) for f in self.fields]
        self.numbers = numbers
        self.raw = raw
        tails = [f for f in self.fields if f.is_tail]
        self.tail = tails[0] if tails else None
        scanned = [(f, e.form) for f, e in zip(self.fields, self.elements) if e.form is not None]
        self._scan = _zentra.Scan(pair_open, scanned, numbers or self.tail is not None, first, last)
        room = room_in(name, pair_open.least)
        self.expected = max(0, min(pair_open.count(), last - first + 1,
                                   _SPARE if room is None else room))

    def rows(self, size: int) -> np.ndarray:
        """A structured array for so many records."""
        dtype = [(f.name, e.dtype) for f, e in zip(self.fields, self.elements)]
        if self.numbers:
            dtype.insert(0, (_number_name(self.fields), "i4"))
        return np.empty(size, dtype=dtype)

    def columns(self, size: int) -> list[np.ndarray]:
        """An array for each field."""
        return [np.empty(size, dtype=e.dtype) for e in self.elements]

    def fill(self, columns: list[np.ndarray], numbers: Optional[np.ndarray], at: int,
             room: int) -> int:
        """Puts up to so many records into the columns from a place on: how many."""
        arrays = [c for c, e in zip(columns, self.elements) if e.form is not None]
        tails: Optional[list[bytes]] = None
        if self.tail is not None:
            tails = []
            if numbers is None:
                numbers = np.empty(at + room, "i4")
        if numbers is not None:
            arrays.append(numbers)
        count = self._scan.fill(arrays, at, room, self.values.lenient, tails)
        if tails is not None:
            column = columns[self.fields.index(self.tail)]
            column[at:at + count] = np.fromiter(self._tail_values(tails, numbers[at:]), dtype=object,
                                                count=count)
        return count

    def _tail_values(self, tails: list[bytes], numbers: np.ndarray) -> Iterator[Any]:
        if self.raw:
            yield from tails
            return
        value = self.values.by_name[self.tail.name]
        for number, data in zip(numbers, tails):
            yield self.values.load_field(value, data, int(number))


def _number_name(fields: Sequence[Field]) -> str:
    if any(field.name == "number" for field in fields):
        raise ArgumentError("with a field called number there is no column of record numbers",
                            code=102)
    return "number"


def _field(layout: Layout, name: str, pair: str) -> Field:
    if name not in layout:
        raise LayoutError(f"the layout has no field {name}", pair=pair)
    return layout[name]


@contextlib.contextmanager
def source_of(pair: PairLike, layout: Union[Layout, str, PathLike, None], *,
              encoding: str = "utf-8", errors: str = "strict", invalid: str = "raise",
              first: int = 1, last: Optional[int] = None, **options: Any) -> Iterator[Source]:
    """A Source for a pair by its name, or for an open one."""
    last = LAST_NUMBER if last is None else last
    for number in (first, last):
        if not isinstance(number, (int, np.integer)) or not 0 <= number <= LAST_NUMBER:
            raise ArgumentError(f"{number!r} is no number of a record", code=102)
    with contextlib.ExitStack() as stack:
        if isinstance(pair, File):
            name = pair.name
            pair_open = stack.enter_context(pair.cursor())
            given = as_layout(layout, name) or pair.layout
        else:
            name = name_of(pair)
            given = as_layout(layout, name)
            pair_open = stack.enter_context(opened(name, _zentra.ISINPUT | _zentra.ISMANULOCK))
        if given is None:
            given = Layout.of(name)
        given.check(pair_open.least, pair_open.is_variable, name)
        values = RecordValues(given, pair_open.least, pair=name, encoding=encoding, errors=errors,
                              invalid=invalid)
        yield Source(pair_open, name, given, values, first=int(first), last=int(last), **options)


def read_numpy(pair: PairLike, layout: Union[Layout, str, PathLike, None] = None, *,
               fields: Optional[Sequence[str]] = None, first: int = 1, last: Optional[int] = None,
               numbers: bool = False, raw: bool = False, encoding: str = "utf-8",
               errors: str = "strict", invalid: str = "raise") -> np.ndarray:
    """All records of a pair as a structured array of shape (records,), in the order of their numbers.

    pair     a name, or an open File
    layout   as for open()
    fields   names of those wanted, in this order
    first, last  only records with these numbers and those between
    numbers  adds a first column "number" (int32)
    raw      the fields' bytes as they are, numbers in their own byte order, nulls and all
    encoding, errors  of a tail that is a text; other texts are bytes here
    invalid  "null" makes null of what has no meaning, such as a date that is none

    Deleted records are left out. Numbers are in the machine's order. Nulls are NaN, NaT, an empty
    text, -1 in a boolean (int8 then), None in the tail; whole numbers that may be null are float64.
    Dates are datetime64[D], decimals float64, texts bytes without the blanks at their end, bytes void.

    Records that others add or change meanwhile are there or not, each by itself; memory is that of
    the array. Raises FieldError with the record and the field, DamagedError and others of errors.
    """
    with source_of(pair, layout, fields=fields, first=first, last=last, numbers=numbers, raw=raw,
                   encoding=encoding, errors=errors, invalid=invalid) as source:
        return _all_rows(source)


def _filled(source: Source, size: int) -> tuple[np.ndarray, int]:
    rows = source.rows(size)
    columns = [rows[field.name] for field in source.fields]
    return rows, source.fill(columns, rows["number"] if source.numbers else None, 0, size)


def _all_rows(source: Source) -> np.ndarray:
    rows, count = _filled(source, source.expected)
    more = []
    while count == len(rows) or (more and len(more[-1]) == _SPARE):
        extra, got = _filled(source, _SPARE)
        more.append(extra[:got])
        if got < _SPARE:
            break
    found = [part for part in more if len(part)]
    return np.concatenate([rows, *found]) if found else rows[:count]


def iter_numpy(pair: PairLike, layout: Union[Layout, str, PathLike, None] = None,
               records: int = 100_000, **options: Any) -> Iterator[np.ndarray]:
    """The same in arrays of so many records, one after the other, for pairs beyond memory.

    The pair is open until the last one has been taken or the iterator is closed.
    """
    if not isinstance(records, int) or records < 1:
        raise ArgumentError(f"{records!r} records at a time", code=102)
    settings = {"fields": None, "numbers": False, "raw": False, **options}
    return _rows_in_turn(pair, layout, records, settings)


def _rows_in_turn(pair: PairLike, layout: Any, records: int,
                  settings: dict[str, Any]) -> Iterator[np.ndarray]:
    with source_of(pair, layout, **settings) as source:
        while True:
            rows, count = _filled(source, records)
            if count:
                yield rows[:count]
            if count < records:
                return


__all__ = ["iter_numpy", "read_numpy"]
