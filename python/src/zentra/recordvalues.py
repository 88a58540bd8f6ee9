"""Records as dictionaries of values: the fields of a layout put together, one record at a time."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any, Optional

from .errors import FieldError, FieldTypeError
from .layouts import Field, Layout
from .values import Text, Value


class RecordValues:
    """Records of a pair as dictionaries of values.

    length    bytes of the fixed part
    encoding  of texts, and what becomes of bytes outside of it, as in bytes.decode()
    invalid   "raise", or "null": bytes without meaning are read as None
    """

    def __init__(self, layout: Layout, length: int, *, pair: str, encoding: str = "utf-8",
                 errors: str = "strict", invalid: str = "raise") -> None:
        if invalid not in ("raise", "null"):
            raise ValueError(f'invalid is "raise" or "null", not {invalid!r}')
        text = Text(encoding, errors)
        self.layout = layout
        self.length = length
        self.pair = pair
        self.encoding = text.encoding
        self.lenient = invalid == "null"
        self.by_name = {field.name: Value(field, text) for field in layout}
        self._fixed = [(f.name, f.offset, f.offset + f.length, self.by_name[f.name].load)
                       for f in layout if not f.is_tail]
        self._tail = self.by_name[layout.tail.name] if layout.tail else None
        covered = sum(end - start for _, start, end, _ in self._fixed)
        self.covers_all = covered == length

    def load(self, record: bytes, number: object = None) -> dict[str, Any]:
        """The values of a record's bytes, by the names of its fields. Raises FieldError."""
        try:
            values = {name: load(record[start:end]) for name, start, end, load in self._fixed}
            if self._tail:
                values[self._tail.field.name] = self._tail.load(record[self.length:])
        except ValueError:  # again, to find the field
            return {name: self.load_field(value, self._bytes_of(value.field, record), number)
                    for name, value in self.by_name.items()}
        return values

    def load_field(self, value: Value, data: bytes, number: object = None) -> Any:
        """The value of a field's bytes. Raises FieldError."""
        try:
            return value.load(data)
        except ValueError as error:
            if self.lenient:
                return None
            raise FieldError(_reason(error), pair=self.pair, record=number,
                             field=value.field.name) from None

    def _bytes_of(self, field: Field, record: bytes) -> bytes:
        if field.is_tail:
            return record[self.length:]
        return record[field.offset:field.offset + field.length]

    def store_value(self, name: str, value: Any, record: object = None) -> bytes:
        """The bytes of one field. Raises FieldError, FieldTypeError."""
        try:
            return self.by_name[name].store(value)
        except TypeError as error:
            raise FieldTypeError(str(error), pair=self.pair, record=record, field=name) from None
        except ValueError as error:
            raise FieldError(_reason(error), pair=self.pair, record=record, field=name) from None

    def store(self, values: Mapping[str, Any], number: object = None,
              base: Optional[bytes] = None) -> bytes:
        """The bytes of a record. What `values` do not name is as in `base`, the record before;
        without one it is null, and an error where the field has no null."""
        for name in values:
            if name not in self.by_name:
                raise FieldError("the layout has no such field", pair=self.pair, record=number,
                                 field=str(name))
        record = bytearray(base[:self.length] if base is not None else bytes(self.length))
        tail = base[self.length:] if base is not None else b""
        for name, value in self.by_name.items():
            field = value.field
            if name in values:
                data = self.store_value(name, values[name], number)
            elif base is not None:
                continue
            elif value.null is not None:
                data = value.null
            else:
                raise FieldError("it is missing", pair=self.pair, record=number, field=name)
            if field.is_tail:
                tail = data
            else:
                record[field.offset:field.offset + field.length] = data
        return bytes(record) + tail


def _reason(error: ValueError) -> str:
    if isinstance(error, UnicodeDecodeError):
        return (f"byte {error.object[error.start]:#04x} at place {error.start} is not of the encoding "
                f"{error.encoding}")
    if isinstance(error, UnicodeEncodeError):
        return f"{error.object[error.start]!r} is not of the encoding {error.encoding}"
    return str(error)
