"""Records in the order of an index, as far as a range of its keys reaches."""

from __future__ import annotations

import copy
import tempfile
from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING, Any, Optional

from . import _zentra
from .errors import ArgumentError, FieldTypeError, IndexKeyError
from .keys import IndexKey
from .pairs import encoded

if TYPE_CHECKING:
    from .forms import Record
    from .records import File

_FIRST_PORTION = 8
_OPEN: Any = object()  # no limit; None is a key, too
_LAST_PORTION = 128
_LAST_NUMBER = (1 << 31) - 1


class Limit:
    """A key, or the first parts of one, at which a range begins or ends."""

    def __init__(self, index: IndexKey, key: Any, length: int) -> None:
        self.record, self.count = index.wanted(key, length)
        self.parts = index.parts[:len(index.values_of(key))]
        self._sortable = None if index.has_locale else self._sortable_of(self.record)

    def _sortable_of(self, record: bytes) -> list[Any]:
        return [part.sortable(record[part.start:part.end]) for part in self.parts]

    def compare(self, record: bytes) -> int:
        """Whether a record's key comes before the limit (-1), has it (0) or comes behind (1)."""
        for part, here, limit in zip(self.parts, self._sortable_of(record), self._sortable):
            if here != limit:
                return -1 if (here < limit) != part.descends else 1
        return 0


class LocaleLimit(Limit):
    """The same where the client's locale orders the index. The library is asked how it does: by a
    pair of one record, which has the limit's key."""

    def __init__(self, index: IndexKey, key: Any, length: int) -> None:
        super().__init__(index, key, length)
        self._folder = tempfile.TemporaryDirectory(prefix="zentra-")
        start = 0
        parts = []
        for part in self.parts:
            parts.append((start, part.end - part.start,
                          part.kind | (_zentra.KT_DESC if part.descends else 0)))
            start += part.end - part.start
        self._open = _zentra.Open.build(
            encoded(self._folder.name + "/limit"), start, start, _zentra.KeyOf(0, parts),
            _zentra.ISINOUT | _zentra.ISEXCLLOCK)
        self._open.write(self._key_of(self.record))

    def _key_of(self, record: bytes) -> bytes:
        return b"".join(record[part.start:part.end] for part in self.parts)

    def compare(self, record: bytes) -> int:
        key = self._key_of(record)
        if not self._open.start(1, _zentra.RD_GTEQ, key, 0, 0):
            return 1
        return -1 if self._open.start(1, _zentra.RD_GREAT, key, 0, 0) else 0

    def close(self) -> None:
        """Removes the pair."""
        self._open.close()
        self._folder.cleanup()


class Range:
    """Records of a File in the order of an index; iterating and reversed() read them.

    equal(), prefix(), between(), since() and until() give a part of it. Keys are the value of the
    index's field, or a tuple of values; fewer values than the index has fields stand for the first
    of them. Records are read some at a time: one that another process changes meanwhile may be
    given as it was; what this File changes is noticed. Keys are compared as the index compares them:
    where the application orders a part itself (KT_COLL1 to KT_COLL7 of isam.h), all its values are
    equal there.
    """

    def __init__(self, file: File, index: Optional[IndexKey]) -> None:
        self._file = file
        self.key = index
        self._low = self._high = _OPEN
        self._prefix: Optional[tuple[list[Any], bytes]] = None
        self._numbered = False

    def _narrowed(self, low: Any, high: Any) -> Range:
        narrowed = copy.copy(self)
        if self._low is not _OPEN or self._high is not _OPEN or self._prefix is not None:
            raise ArgumentError("the range is narrowed already", code=102, pair=self._file.name)
        narrowed._low, narrowed._high = low, high
        for limit in (low, high):  # tells of wrong values here, not when it is read
            if limit is not _OPEN and self.key is not None:
                self.key.wanted(limit, self._file.least)
            elif limit is not _OPEN and (isinstance(limit, bool) or not isinstance(limit, int)):
                raise FieldTypeError("a record's number is wanted, not "
                                     f"{type(limit).__name__}", pair=self._file.name)
        return narrowed

    def equal(self, *key: Any) -> Range:
        """Records with this key, or with these values of the first fields."""
        whole = key[0] if len(key) == 1 else key
        return self._narrowed(whole, whole)

    def between(self, low: Any, high: Any) -> Range:
        """Records from one key to another, both included, in the order of the index."""
        return self._narrowed(low, high)

    def since(self, low: Any) -> Range:
        """Records from a key on."""
        return self._narrowed(low, _OPEN)

    def until(self, high: Any) -> Range:
        """Records up to a key, which is included."""
        return self._narrowed(_OPEN, high)

    def prefix(self, *key: Any) -> Range:
        """Records whose text begins so; with several values, those that have the ones before, too.
        An index that a locale or the application orders is read as a whole for that."""
        index = self.key
        if index is None or not 1 <= len(key) <= len(index.parts):
            raise IndexKeyError("no such part of an index", code=103, pair=self._file.name)
        part = index.parts[len(key) - 1]
        if not part.is_text or not isinstance(key[-1], (str, bytes)):
            raise FieldTypeError("only texts have beginnings", pair=self._file.name,
                                 field=part.name)
        # Blanks that fill the field up are no part of the text that it begins with.
        text = key[-1]
        whole = index.bytes_of(part, text, key)
        blanks = len(whole) - len(whole.rstrip(b" "))
        asked = len(text) - len(text.rstrip(" " if isinstance(text, str) else b" "))
        begin = whole[:len(whole) - blanks + asked] if blanks else whole
        narrowed = self._narrowed(_OPEN, _OPEN)
        narrowed._prefix = (list(key[:-1]), begin)
        return narrowed

    def numbered(self) -> Range:
        """The same, each record as a tuple of its number and itself."""
        numbered = copy.copy(self)
        numbered._numbered = True
        return numbered

    def first(self, default: Any = None) -> Record:
        """The first record, or `default`."""
        return next(iter(self), default)

    def __iter__(self) -> Iterator[Record]:
        return self._walk(backwards=False)

    def __reversed__(self) -> Iterator[Record]:
        return self._walk(backwards=True)

    def _walk(self, backwards: bool) -> Iterator[Record]:
        file = self._file
        for number, record in self._found(backwards):
            value = file.record_of((number, record))
            yield (number, value) if self._numbered else value

    def _found(self, backwards: bool) -> Iterator[tuple[int, bytes]]:
        if self.key is None:
            return self._by_number(backwards)
        if self._prefix is not None:
            return self._by_prefix(self.key, backwards)
        return self._by_key(self.key, backwards)

    def _by_number(self, backwards: bool) -> Iterator[tuple[int, bytes]]:
        low = 1 if self._low is _OPEN else max(1, self._low)
        high = _LAST_NUMBER if self._high is _OPEN else min(_LAST_NUMBER, self._high)
        if low > high:
            return iter(())

        def begin(cursor: _zentra.Open) -> bool:
            if not backwards:
                return cursor.start(0, _zentra.RD_GTEQ, b"", 0, low)
            # A step back gives the record that was found, which may be the one behind.
            return (cursor.start(0, _zentra.RD_GTEQ, b"", 0, high)
                    or cursor.start(0, _zentra.RD_LAST, b"", 0, 0))

        def place(number: int, record: bytes) -> int:
            return -1 if number < low else 1 if number > high else 0
        return self._read(begin, place, backwards)

    def _by_prefix(self, index: IndexKey, backwards: bool) -> Iterator[tuple[int, bytes]]:
        before, text = self._prefix
        length = self._file.least
        part = index.parts[len(before)]
        parts = index.parts[:len(before)]
        wanted = bytearray(index.wanted(tuple(before), length)[0] if before else bytes(length))
        wanted[part.start:part.start + len(text)] = text
        count = sum(p.end - p.start for p in parts) + len(text)

        def fits(record: bytes) -> bool:
            return (record[part.start:part.end].startswith(text)
                    and all(record[p.start:p.end] == wanted[p.start:p.end] for p in parts))

        if not index.has_beginnings or not count:
            everything = self._read(self._from_edge(index, backwards), None, backwards)
            return (found for found in everything if fits(found[1]))

        def begin(cursor: _zentra.Open) -> bool:
            if not backwards:
                return cursor.start(index.number, _zentra.RD_EQUAL, bytes(wanted), count, 0)
            return self._before(cursor, index, bytes(wanted), count)
        return self._read(begin, lambda _, record: 0 if fits(record) else 2, backwards)

    def _by_key(self, index: IndexKey, backwards: bool) -> Iterator[tuple[int, bytes]]:
        kind = LocaleLimit if index.has_locale else Limit
        length = self._file.least
        low = kind(index, self._low, length) if self._low is not _OPEN else None
        high = kind(index, self._high, length) if self._high is not _OPEN else None

        def begin(cursor: _zentra.Open) -> bool:
            if backwards and high:
                return self._before(cursor, index, high.record, high.count)
            if not backwards and low:
                return cursor.start(index.number, _zentra.RD_GTEQ, low.record, low.count, 0)
            return self._from_edge(index, backwards)(cursor)

        def place(number: int, record: bytes) -> int:
            if low and low.compare(record) < 0:
                return -1
            return 1 if high and high.compare(record) > 0 else 0
        try:
            yield from self._read(begin, place, backwards)
        finally:
            for limit in (low, high):
                if isinstance(limit, LocaleLimit):
                    limit.close()

    @staticmethod
    def _from_edge(index: IndexKey, backwards: bool) -> Callable[[_zentra.Open], bool]:
        mode = _zentra.RD_LAST if backwards else _zentra.RD_FIRST
        return lambda cursor: cursor.start(index.number, mode, b"", 0, 0)

    @staticmethod
    def _before(cursor: _zentra.Open, index: IndexKey, record: bytes, count: int) -> bool:
        """Stands so that a step back gives the last record that is not greater."""
        return (cursor.start(index.number, _zentra.RD_GREAT, record, count, 0)
                or cursor.start(index.number, _zentra.RD_LAST, b"", 0, 0))

    def _read(self, begin: Callable[[_zentra.Open], bool],
              place: Optional[Callable[[int, bytes], int]],
              backwards: bool) -> Iterator[tuple[int, bytes]]:
        """Records from where `begin` stands to the first that is no more in place. `place` tells
        whether a record comes before the range (-1), is in it (0) or comes behind it (1); 2: it is
        on neither side."""
        file = self._file
        step = _zentra.RD_PREV if backwards else _zentra.RD_NEXT
        not_yet = 1 if backwards else -1
        portion = _FIRST_PORTION
        with file.cursor() as cursor:
            if not begin(cursor):
                return
            while True:
                changes = file.changes
                records = cursor.read_many(step, portion)
                if not records:
                    return
                for number, record in records:
                    if changes != file.changes:
                        record = self._as_it_is(number, record)
                        if record is None:
                            continue
                    where = place(number, record) if place else 0
                    if where == not_yet:
                        continue
                    if where:
                        return
                    yield number, record
                portion = min(portion * 2, _LAST_PORTION)

    def _as_it_is(self, number: int, record: bytes) -> Optional[bytes]:
        """A record read before this File changed something: None when it has gone elsewhere."""
        found = self._file.read_number(number)
        if found is None or found[1] == record or self.key is None:
            return found[1] if found else None
        same = self.key.key_bytes(found[1]) == self.key.key_bytes(record)
        return found[1] if same else None


