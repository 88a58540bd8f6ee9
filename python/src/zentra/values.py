"""What the bytes of a field mean, and the bytes of a value: one field at a time.

A field's Value has load(), from its bytes to None, str, int, float, bytes, datetime.date,
decimal.Decimal or bool; and store(), back. Both raise ValueError with a reason; store() raises
TypeError for a value of another type. recordvalues.py puts fields together to records.
"""

from __future__ import annotations

import datetime
import decimal
import operator
import re
import struct
from collections.abc import Callable
from typing import Any, Optional

from .layouts import Field

Load = Callable[[bytes], Any]
Store = Callable[[Any], bytes]

LEAST = {"int": -(1 << 15), "long": -(1 << 31)}
MOST = {"int": (1 << 15) - 1, "long": (1 << 31) - 1}
_FORMATS = {"int": ">h", "long": ">i", "float": "=f", "double": "=d"}
_FIRST_OF_TWO_DIGITS = 1969  # two digits of a year are one of the hundred from here on
_EXACT = decimal.Context(prec=64, traps=[decimal.Inexact, decimal.InvalidOperation])


def date_form(form: str) -> tuple[re.Pattern[str], list[tuple[str, int]]]:
    """A form such as DD.MM.YYYY as a pattern with the groups Y, M and D, and its runs."""
    runs = [(run[0][0], len(run[0])) for run in re.finditer(r"(.)\1*", form, re.S)]
    pattern = "".join(f"(?P<{letter}>[0-9]{{{length}}})" if letter in "YMD"
                      else re.escape(letter * length) for letter, length in runs)
    return re.compile(pattern, re.S), runs


def date_in(pattern: re.Pattern[str], text: str) -> datetime.date:
    """The date that a text has."""
    match = pattern.fullmatch(text)
    if not match:
        raise ValueError(f"{text!r} is no date")
    year = int(match["Y"])
    if len(match["Y"]) == 2:
        year += 1900 if year >= _FIRST_OF_TWO_DIGITS % 100 else 2000
    try:
        return datetime.date(year, int(match["M"]), int(match["D"]))
    except ValueError:
        raise ValueError(f"{text!r} is no day of the calendar") from None


def date_text(runs: list[tuple[str, int]], day: datetime.date) -> str:
    """The text of a date."""
    if ("Y", 2) in runs and not 0 <= day.year - _FIRST_OF_TWO_DIGITS < 100:
        raise ValueError(f"{day} has a year that two digits do not tell")
    numbers = {"Y": day.year, "M": day.month, "D": day.day}
    return "".join(f"{numbers[letter] % 10 ** length:0{length}d}" if letter in "YMD"
                   else letter * length for letter, length in runs)


def is_text(field: Field) -> bool:
    """Whether a field is stored as a text."""
    return field.type in ("char", "locale")


def is_whole(field: Field) -> bool:
    """Whether a field is stored as a whole number."""
    return field.type in ("int", "long")


def null_bytes(field: Field) -> bytes:
    """What a field has for null."""
    if field.is_tail:
        return b""
    if is_text(field):
        return b" " * field.length
    if is_whole(field):
        return struct.pack(_FORMATS[field.type], LEAST[field.type])
    return b"\xff" * field.length


def _expect(value: Any, kinds: type | tuple[type, ...], wanted: str) -> None:
    if not isinstance(value, kinds) or (isinstance(value, bool) and kinds is not bool):
        raise TypeError(f"{wanted} is wanted, not {type(value).__name__}")


class Text:
    """How texts of a pair are encoded."""

    def __init__(self, encoding: str, errors: str) -> None:
        self.encoding = encoding
        self.errors = errors
        " ".encode(encoding, errors)  # tells of unknown names now
        if " ".encode(encoding) != b" ":
            raise LookupError(f"{encoding}: a blank is not one byte 32 in this encoding")

    def load(self, field: Field) -> Load:
        keeps_blanks = field.keeps_blanks or field.is_tail
        encoding, errors = field.encoding or self.encoding, self.errors

        def load(data: bytes) -> str:
            return (data if keeps_blanks else data.rstrip(b" ")).decode(encoding, errors)
        return load

    def store(self, field: Field) -> Store:
        encoding, errors, length = field.encoding or self.encoding, self.errors, field.length

        def store(value: str) -> bytes:
            _expect(value, str, "a text")
            data = value.encode(encoding, errors)
            if field.is_tail:
                return data
            if len(data) > length:
                raise ValueError(f"a text of {len(data)} bytes; the field has {length}")
            return data.ljust(length)
        return store


def _whole(field: Field) -> tuple[Load, Callable[[int], bytes]]:
    packer = struct.Struct(_FORMATS[field.type])
    least = LEAST[field.type] + (1 if field.may_be_null else 0)
    most = MOST[field.type]

    def load(data: bytes) -> int:
        return packer.unpack(data)[0]

    def store(value: int) -> bytes:
        if not least <= value <= most:
            null = " (which stands for null)" if value == least - 1 and field.may_be_null else ""
            raise ValueError(f"{value}{null} does not fit {field.type}")
        return packer.pack(value)
    return load, store


def _number(field: Field) -> tuple[Load, Store]:
    if is_whole(field):
        load, pack = _whole(field)

        def store_whole(value: Any) -> bytes:
            if isinstance(value, (bool, float, decimal.Decimal)):
                raise TypeError(f"a whole number is wanted, not {type(value).__name__}")
            try:
                number = operator.index(value)
            except TypeError:
                raise TypeError(f"a whole number is wanted, not {type(value).__name__}") from None
            return pack(number)
        return load, store_whole
    packer = struct.Struct(_FORMATS[field.type])
    null = null_bytes(field)

    def store_real(value: Any) -> bytes:
        if isinstance(value, (bool, str, bytes)) or not hasattr(value, "__float__"):
            raise TypeError(f"a number is wanted, not {type(value).__name__}")
        try:
            data = packer.pack(float(value))
        except OverflowError:
            raise ValueError(f"{value} does not fit {field.type}") from None
        if field.may_be_null and data == null:
            raise ValueError("this NaN stands for null")
        return data
    return (lambda data: packer.unpack(data)[0]), store_real


def _bytes(field: Field) -> tuple[Load, Store]:
    def store(value: Any) -> bytes:
        _expect(value, (bytes, bytearray, memoryview), "bytes")
        data = bytes(value)
        if not field.is_tail and len(data) != field.length:
            raise ValueError(f"{len(data)} bytes; the field has {field.length}")
        return data
    return (lambda data: data), store


def _date(field: Field) -> tuple[Load, Store]:
    pattern, runs = date_form(field.form)
    load_number, store_number = _whole(field) if is_whole(field) else (None, None)

    def load(data: bytes) -> datetime.date:
        if load_number:
            return date_in(pattern, f"{load_number(data):0{len(field.form)}d}")
        # Bytes outside ASCII are no digits, and no part of a form but as they are.
        return date_in(pattern, data.rstrip(b" ").decode("utf-8", "surrogateescape"))

    def store(value: Any) -> bytes:
        _expect_date(value)
        text = date_text(runs, value)
        if store_number:
            return store_number(int(text))
        return text.encode("utf-8").ljust(field.length)
    return load, store


def _expect_date(value: Any) -> None:
    if isinstance(value, datetime.datetime) or not isinstance(value, datetime.date):
        raise TypeError(f"a datetime.date is wanted, not {type(value).__name__}")


def _days(field: Field) -> tuple[Load, Store]:
    first = datetime.date.fromisoformat(field.form)
    load_number, store_number = _whole(field)

    def load(data: bytes) -> datetime.date:
        days = load_number(data)
        try:
            return first + datetime.timedelta(days)
        except OverflowError:
            raise ValueError(f"{days} days from {first} are beyond the calendar") from None

    def store(value: Any) -> bytes:
        _expect_date(value)
        return store_number((value - first).days)
    return load, store


def unscaled(value: Any, decimals: int) -> int:
    """The digits of a decimal without its point."""
    if isinstance(value, (bool, float, str, bytes)):
        raise TypeError(f"a decimal.Decimal or an int is wanted, not {type(value).__name__}")
    if not isinstance(value, decimal.Decimal):
        try:
            value = decimal.Decimal(operator.index(value))
        except TypeError:
            raise TypeError("a decimal.Decimal or an int is wanted, not "
                            f"{type(value).__name__}") from None
    if not value.is_finite():
        raise ValueError(f"{value} is no number")
    if value.adjusted() > 40:
        raise ValueError(f"{value} is too great")
    try:
        return int(value.scaleb(decimals, _EXACT).quantize(decimal.Decimal(1), context=_EXACT))
    except (decimal.Inexact, decimal.InvalidOperation):
        raise ValueError(f"{value} has more than {decimals} decimals") from None


def decimal_text(number: int, length: int) -> bytes:
    """Digits that fill a field, a minus before them where the number is less than 0."""
    text = f"{number:0{length}d}"
    if len(text) > length:
        raise ValueError(f"{len(text)} digits; the field has {length}")
    return text.encode("ascii")


_DIGITS = re.compile(rb"-?0*[1-9][0-9]*|0+")


def digits_in(data: bytes) -> int:
    """The number that a text of nothing but digits tells, a minus before them where it is less than 0."""
    if not _DIGITS.fullmatch(data):
        raise ValueError(f"{data!r} are no digits that fill the field")
    return int(data)


def _decimal(field: Field) -> tuple[Load, Store]:
    load_number, store_number = _whole(field) if is_whole(field) else (digits_in, None)
    point = -field.decimals

    def load(data: bytes) -> decimal.Decimal:
        number = load_number(data)
        digits = tuple(map(int, str(abs(number))))
        return decimal.Decimal((1 if number < 0 else 0, digits, point))

    def store(value: Any) -> bytes:
        number = unscaled(value, field.decimals)
        return store_number(number) if store_number else decimal_text(number, field.length)
    return load, store


def boolean_bytes(field: Field) -> tuple[bytes, bytes]:
    """What a field has for true and for false."""
    if is_whole(field):
        return tuple(struct.pack(_FORMATS[field.type], int(word)) for word in (field.yes, field.no))
    return tuple(word.encode("utf-8").ljust(field.length) for word in (field.yes, field.no))


def _boolean(field: Field) -> tuple[Load, Store]:
    yes, no = boolean_bytes(field)

    def load(data: bytes) -> bool:
        if data == yes:
            return True
        if data != no:
            raise ValueError(f"{data!r} is neither {field.yes} nor {field.no}")
        return False

    def store(value: Any) -> bytes:
        if not isinstance(value, bool):
            if type(value).__name__ not in ("bool_", "bool"):  # NumPy's
                raise TypeError(f"a bool is wanted, not {type(value).__name__}")
        return yes if value else no
    return load, store


_MEANINGS = {"date": _date, "days": _days, "decimal": _decimal, "boolean": _boolean}


class Value:
    """A field, from bytes to a value and back."""

    __slots__ = ("field", "load", "null", "store")

    def __init__(self, field: Field, text: Text) -> None:
        self.field = field
        self.null: Optional[bytes] = null_bytes(field) if field.may_be_null else None
        if field.meaning != "plain":
            load, store = _MEANINGS[field.meaning](field)
        elif is_text(field):
            load, store = text.load(field), text.store(field)
        elif field.type == "bytes":
            load, store = _bytes(field)
        else:
            load, store = _number(field)
        null = self.null
        if null is None:
            self.load, self.store = load, store
        else:
            self.load = lambda data: None if data == null else load(data)
            self.store = lambda value: null if value is None else store(value)
