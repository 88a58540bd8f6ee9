"""Keys: how an index is described, and key values as the bytes by which a record is found."""

from __future__ import annotations

import struct
from collections.abc import Iterable, Mapping, Sequence
from typing import Any, Union

from . import _zentra
from .errors import FieldError, FieldTypeError, IndexKeyError
from .layouts import Layout
from .recordvalues import RecordValues

_TYPES = {"char": _zentra.KT_CHAR, "bytes": _zentra.KT_CHAR, "int": _zentra.KT_INT,
          "long": _zentra.KT_LONG, "float": _zentra.KT_FLOAT, "double": _zentra.KT_DOUBLE,
          "locale": _zentra.KT_LOCALE}
_NUMBERS = {_zentra.KT_INT: ">h", _zentra.KT_LONG: ">i", _zentra.KT_FLOAT: "=f",
            _zentra.KT_DOUBLE: "=d"}


class Key:
    """An index to be made: the fields that are its parts, the most significant first.

    duplicates  records may have equal keys
    descending  True for all parts, or the names of those that sort downwards
    compress    repeated keys, shared beginnings and trailing blanks are not stored

    >>> Key("name", "born", duplicates=True, descending=["born"])
    Key('name', 'born', duplicates=True, descending=['born'])
    """

    def __init__(self, *fields: str, duplicates: bool = False,
                 descending: Union[bool, Sequence[str]] = False, compress: bool = True) -> None:
        if not fields or not all(isinstance(name, str) for name in fields):
            raise IndexKeyError("a key is made of names of fields", code=103)
        self.fields = fields
        self.duplicates = duplicates
        self.descending = (list(fields) if descending is True
                           else [descending] if isinstance(descending, str)
                           else list(descending or ()))
        self.compress = compress
        for name in self.descending:
            if name not in fields:
                raise IndexKeyError(f"{name} is no part of the key", code=103)

    def __repr__(self) -> str:
        words = [repr(name) for name in self.fields]
        if self.duplicates:
            words.append("duplicates=True")
        if self.descending:
            words.append(f"descending={self.descending!r}")
        if not self.compress:
            words.append("compress=False")
        return f"Key({', '.join(words)})"

    def described(self, layout: Layout) -> _zentra.KeyOf:
        """The description for the library. Raises IndexKeyError."""
        if len(self.fields) > _zentra.MAXPARTS:
            raise IndexKeyError(f"a key has {_zentra.MAXPARTS} parts at most", code=103)
        parts = []
        for name in self.fields:
            if name not in layout:
                raise IndexKeyError(f"the layout has no field {name}", code=103)
            field = layout[name]
            if field.is_tail:
                raise IndexKeyError(f"{name} is the tail, which no index has", code=103)
            kind = _TYPES[field.type] | (_zentra.KT_DESC if name in self.descending else 0)
            parts.append((field.offset, field.length, kind))
        flags = _zentra.KF_DUPS if self.duplicates else 0
        # A key of one number has nothing to be left out but its repetitions.
        return _zentra.KeyOf(flags | (_zentra.KF_COMPRESS if self.compress else 0), parts)


KeyLike = Union[Key, str, Sequence[str]]


def as_key(key: KeyLike) -> Key:
    """A Key from the name of a field, or from several."""
    if isinstance(key, Key):
        return key
    return Key(key) if isinstance(key, str) else Key(*key)


class Part:
    """A part of an index: bytes of the record, and the field that these are, if they are one."""

    __slots__ = ("descends", "end", "kind", "name", "start")

    def __init__(self, start: int, length: int, kind: int, layout: Union[Layout, None]) -> None:
        self.start = start
        self.end = start + length
        self.descends = bool(kind & _zentra.KT_DESC)
        self.kind = kind & ~_zentra.KT_DESC
        self.name = next((f.name for f in layout or () if not f.is_tail and
                          (f.offset, f.length) == (start, length)), "")

    @property
    def is_text(self) -> bool:
        """Whether parts of the part make sense."""
        return self.kind not in _NUMBERS

    @property
    def is_collated(self) -> bool:
        """Whether the application orders the part itself: in the index all its values are equal."""
        return self.kind not in _NUMBERS and self.kind not in (_zentra.KT_CHAR, _zentra.KT_LOCALE)

    def sortable(self, data: bytes) -> Any:
        """What compares as the index does. Not for locale parts."""
        if self.is_collated:
            return b""
        if self.kind not in _NUMBERS:
            return data
        if self.kind in (_zentra.KT_FLOAT, _zentra.KT_DOUBLE) and data == b"\xff" * len(data):
            return float("-inf"), 0  # null sorts first
        value = struct.unpack(_NUMBERS[self.kind], data)[0]
        return (value, 1) if self.kind in (_zentra.KT_FLOAT, _zentra.KT_DOUBLE) else value


class IndexKey:
    """An index of an open pair, by its number, and how values become its keys."""

    def __init__(self, number: int, key: _zentra.KeyOf, values: Union[RecordValues, None],
                 pair: str) -> None:
        layout = values.layout if values else None
        self.number = number
        self.parts = [Part(*part, layout) for part in key.parts]
        self.duplicates = bool(key.flags & _zentra.KF_DUPS)
        self.values = values
        self.pair = pair

    @property
    def names(self) -> list[str]:
        """The fields of the parts; an empty one for a part that is no field."""
        return [part.name for part in self.parts]

    @property
    def has_locale(self) -> bool:
        """Whether the client's locale orders it."""
        return any(part.kind == _zentra.KT_LOCALE for part in self.parts)

    @property
    def has_beginnings(self) -> bool:
        """Whether texts that begin alike stand together in it."""
        return not self.has_locale and not any(part.is_collated for part in self.parts)

    def values_of(self, key: Any) -> list[Any]:
        """The values of a key as callers pass it: one, a tuple, or a dictionary."""
        if isinstance(key, Mapping):
            names = self.names[:len(key)]
            if set(names) != set(key):
                raise IndexKeyError(f"the index begins with {', '.join(self.names)}", code=103,
                                    pair=self.pair)
            return [key[name] for name in names]
        if isinstance(key, (tuple, list)):
            values = list(key)
        else:
            values = [key]
        if not 1 <= len(values) <= max(len(self.parts), 1):
            raise IndexKeyError(f"{len(values)} values for an index of {len(self.parts)} parts",
                                code=103, pair=self.pair)
        return values

    def bytes_of(self, part: Part, value: Any, key: Any) -> bytes:
        """A value as the bytes of a part. Raises FieldError."""
        if part.name and self.values:
            return self.values.store_value(part.name, value, key)
        length = part.end - part.start
        if isinstance(value, (bytes, bytearray)):
            data = bytes(value).ljust(length) if part.is_text else bytes(value)
        elif part.is_text and isinstance(value, str):
            data = value.encode("utf-8", "strict").ljust(length)
        elif not part.is_text and isinstance(value, (int, float)):
            try:
                data = struct.pack(_NUMBERS[part.kind], value)
            except (struct.error, OverflowError):
                raise FieldError(f"{value} does not fit part {part.start}", pair=self.pair,
                                 record=key) from None
        else:
            raise FieldTypeError(f"{type(value).__name__} is no value of the key's part at byte "
                                 f"{part.start}", pair=self.pair, record=key)
        if len(data) != length:
            raise FieldError(f"{len(data)} bytes for {length} of the key's part at byte "
                             f"{part.start}", pair=self.pair, record=key)
        return data

    def wanted(self, key: Any, length: int) -> tuple[bytes, int]:
        """A record of `length` bytes that has a key, or the first parts of one, and the bytes of the
        key that count."""
        record = bytearray(length)
        count = 0
        values = self.values_of(key)
        for part, value in zip(self.parts, values):
            record[part.start:part.end] = self.bytes_of(part, value, key)
            count += part.end - part.start
        return bytes(record), count

    def key_bytes(self, record: bytes) -> list[bytes]:
        """The parts of a record's key."""
        return [record[part.start:part.end] for part in self.parts]


def by_names(indexes: Iterable[IndexKey], names: Sequence[str], pair: str) -> IndexKey:
    """The index that has these fields, or the only one that begins with them."""
    wanted = list(names)
    found = [index for index in indexes if index.names == wanted]
    found = found or [index for index in indexes if index.names[:len(wanted)] == wanted]
    if len(found) == 1 or (found and len({tuple(index.names) for index in found}) == 1):
        return found[0]
    has = "; ".join(f"{index.number}: {', '.join(n or '?' for n in index.names)}"
                    for index in indexes)
    why = "has several indexes" if found else "has no index"
    raise IndexKeyError(f'"{pair}" {why} that begin with {", ".join(wanted)}. It has {has}',
                        code=103, pair=pair)
