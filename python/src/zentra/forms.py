"""Records as callers have them: dictionaries, objects of a class of theirs, or bytes."""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from typing import Any, Optional

from .errors import ArgumentError, FieldError, FieldTypeError
from .layouts import Layout
from .recordvalues import RecordValues

Record = Any  # a dictionary, an object of the type that was asked for, or bytes

_MISSING = object()


class RecordForm:
    """What records of a pair are to its callers.

    load(data, number)         what they get for a record's bytes
    store(record, base, where)  the bytes of what they give; fields that it leaves out are those of
                               `base`; `where` is for exceptions to tell
    """

    def __init__(self, record: Optional[type], layout: Optional[Layout],
                 values: Optional[RecordValues], pair: str) -> None:
        self.is_bytes = record is bytes
        self._layout = layout
        self._values = values
        self._pair = pair
        self.load: Callable[[bytes, int], Record]
        self.store: Callable[[Record, Optional[bytes], object], bytes]
        if record is bytes:
            self.load, self.store = (lambda data, number: data), self._raw
        elif record is None or record is dict:
            self.load, self.store = values.load, self._of_mapping
        elif callable(record):
            self.load = lambda data, number: record(**values.load(data, number))
            self.store = self._of_object
        else:
            raise ArgumentError("`record` is dict, bytes or a class", code=102)

    def _raw(self, record: Any, base: Optional[bytes], where: object) -> bytes:
        if not isinstance(record, (bytes, bytearray, memoryview)):
            raise FieldTypeError(f"bytes are wanted, not {type(record).__name__}", pair=self._pair,
                                 record=where)
        return bytes(record)

    def _of_mapping(self, record: Any, base: Optional[bytes], where: object) -> bytes:
        if not isinstance(record, Mapping):
            raise FieldTypeError(f"a dictionary is wanted, not {type(record).__name__}",
                                 pair=self._pair, record=where)
        return self._values.store(record, where, base)

    def _of_object(self, record: Any, base: Optional[bytes], where: object) -> bytes:
        if isinstance(record, Mapping):
            return self._values.store(record, where, base)
        values = {}
        for field in self._layout:
            try:
                values[field.name] = getattr(record, field.name)
            except AttributeError:
                raise FieldTypeError(f"{type(record).__name__} has no such attribute",
                                     pair=self._pair, record=where, field=field.name) from None
        return self._values.store(values, where, base)

    def is_whole(self, record: Any) -> bool:
        """Whether a record as the caller has it tells all its bytes."""
        if self.is_bytes:
            return True
        if not self._values.covers_all:
            return False
        return not isinstance(record, Mapping) or len(record) == len(self._layout)

    def key_of(self, record: Any, names: Sequence[str]) -> Any:
        """The key that a dictionary or an object has in the fields of these names."""
        values = []
        for name in names:
            value = record.get(name, _MISSING) if isinstance(record, Mapping) else getattr(
                record, name, _MISSING)
            if not name or value is _MISSING:
                raise FieldError("the record has no value for its primary key", pair=self._pair,
                                 field=name)
            values.append(value)
        return values[0] if len(values) == 1 else tuple(values)
