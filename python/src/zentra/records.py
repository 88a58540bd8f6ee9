"""Open pairs: reading, writing and locking their records."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator, Mapping
from typing import Any, Optional, Union

from . import _zentra
from .errors import (ArgumentError, ClosedError, Error, FieldError, FieldTypeError, IndexKeyError,
                     LayoutError, NoPrimaryKeyError, NoRecordError, RecordLengthError,
                     RecordLockedError)
from .forms import Record, RecordForm
from .keys import IndexKey, KeyLike, as_key, by_names
from .layouts import Layout
from .locks import Locks, Wait
from .logs import Log
from .pairs import close_at_exit, encoded, room_in
from .ranges import Range
from .recordvalues import RecordValues


class File:
    """An open pair: a mapping from keys of its primary index to records.

    A key is the value of the index's field, or a tuple of its fields' values; in a pair without
    indexes it is the record's number, from 1. len() counts the records, and iterating gives the
    records themselves in the order of the index. Made by open() and create().

    One thread of the process uses the library at a time; the others wait, with the interpreter
    free. Locks belong to the process: closing a file that has locked something releases what other
    opens of the same pair have locked, too.
    """

    def __init__(self, name: str, opened: _zentra.Open, layout: Optional[Layout], mode: str,
                 record: Optional[type], *, exclusive: bool = False,
                 transactions: Optional[bool] = None, encoding: str = "utf-8",
                 errors: str = "strict", invalid: str = "raise") -> None:
        self.name = name
        self.layout = layout
        self.mode = mode
        self.exclusive = exclusive
        self.transactions = Log.is_open() or None if transactions is None else transactions
        self.least = opened.least
        self._open = opened
        self.values: Optional[RecordValues] = None
        if layout is not None:
            layout.check(opened.least, opened.is_variable, name)
            self.values = RecordValues(layout, opened.least, pair=name, encoding=encoding,
                                        errors=errors, invalid=invalid)
        self._form = RecordForm(record, layout, self.values, name)
        self.indexes = self._look_at_indexes()
        self._spare: list[_zentra.Open] = []  # of the cursors, those that nobody reads with
        self._cursors: list[_zentra.Open] = []
        self._locks = Locks(opened, name)
        self.changes = 0
        close_at_exit(self)

    def _look_at_indexes(self) -> list[IndexKey]:
        return [IndexKey(number, key, self.values, self.name)
                for number, key in enumerate(self._open.keys, 1)]

    def record_of(self, found: tuple[int, bytes]) -> Record:
        """What callers get for a record's number and bytes."""
        return self._form.load(found[1], found[0])

    def _bytes_of(self, record: Any, where: object, base: Optional[bytes] = None) -> bytes:
        data = self._form.store(record, base, where)
        least, most = self.least, self._open.length
        if not least <= len(data) <= most:
            wanted = str(most) if least == most else f"{least} to {most}"
            raise RecordLengthError(f'a record of {len(data)} bytes; those of "{self.name}" have '
                                    f"{wanted}", code=132, pair=self.name)
        return data

    # ---- reading

    @property
    def _primary(self) -> IndexKey:
        if not self.indexes or not self.indexes[0].parts:
            raise NoPrimaryKeyError(f'"{self.name}" has no primary key', code=127, pair=self.name)
        return self.indexes[0]

    @property
    def has_primary_key(self) -> bool:
        """Whether records are found by keys; else they are by their numbers."""
        return bool(self.indexes and self.indexes[0].parts)

    def _find(self, key: Any, lock: int = 0) -> Optional[tuple[int, bytes]]:
        if not self.has_primary_key:
            return self.read_number(key, lock)
        index = self._primary
        if len(index.values_of(key)) < len(index.parts):
            raise IndexKeyError(f"a key has {len(index.parts)} values: {', '.join(index.names)}",
                                code=103, pair=self.name)
        wanted, _ = index.wanted(key, self.least)
        return self._open.read(1, _zentra.RD_EQUAL | lock, wanted, 0)

    def read_number(self, number: int, lock: int = 0) -> Optional[tuple[int, bytes]]:
        """The number and the bytes of the record with a number; None where there is none."""
        if isinstance(number, bool) or not isinstance(number, int):
            raise FieldTypeError(f"a record's number is wanted, not {type(number).__name__}",
                                 pair=self.name)
        if not 1 <= number < 1 << 31:
            return None
        return self._open.read(0, _zentra.RD_EQUAL | lock, b"", number)

    def _found(self, key: Any, found: Optional[tuple[int, bytes]]) -> tuple[int, bytes]:
        if found is None:
            raise NoRecordError(f'"{self.name}" has no record {key!r}', code=111, status="2323",
                                pair=self.name)
        return found

    def __getitem__(self, key: Any) -> Record:
        """The record with a key. Raises NoRecordError."""
        return self.record_of(self._found(key, self._find(key)))

    def __contains__(self, key: object) -> bool:
        return self._find(key) is not None

    def get(self, key: Any, default: Any = None) -> Record:
        """The record with a key, or `default`."""
        found = self._find(key)
        return default if found is None else self.record_of(found)

    def number(self, number: int) -> Record:
        """The record with a number, from 1. Raises NoRecordError."""
        return self.record_of(self._found(number, self.read_number(number)))

    def stamp(self) -> int:
        """The change stamp: two equal ones mean that nobody has changed a record or an index of the
        pair between them. 32 bits; 0 follows the greatest."""
        return self._open.stamp()

    def __len__(self) -> int:
        count = max(0, self._open.count())
        room = room_in(self.name, self.least)  # list() takes memory for so many
        return count if room is None else min(count, room)

    def __bool__(self) -> bool:
        return True

    def __iter__(self) -> Iterator[Record]:
        return iter(self.index(1) if self.has_primary_key else self.by_number())

    def __reversed__(self) -> Iterator[Record]:
        return reversed(self.index(1) if self.has_primary_key else self.by_number())

    def index(self, *which: Union[int, str]) -> Range:
        """The records in the order of an index: by its number from 1, or by the names of its fields
        or of the first of them. Raises IndexKeyError."""
        if len(which) == 1 and isinstance(which[0], int):
            for index in self.indexes:
                if index.number == which[0]:
                    return Range(self, index)
            raise IndexKeyError(f'"{self.name}" has no index {which[0]}, but {len(self.indexes)}',
                                code=103, pair=self.name)
        return Range(self, by_names(self.indexes, [str(name) for name in which], self.name))

    def by_number(self) -> Range:
        """The records in the order of their numbers."""
        return Range(self, None)

    @property
    def bulk(self) -> _zentra.Open:
        """The open itself, for a bulk load."""
        return self._open

    # ---- opens of their own for those who iterate

    @contextlib.contextmanager
    def cursor(self) -> Iterator[_zentra.Open]:
        """An open that nobody else moves meanwhile. It stays open for those who come next."""
        cursor = self._spare.pop() if self._spare else self._another()
        try:
            yield cursor
        finally:
            if not cursor.closed:
                self._spare.append(cursor)

    def _another(self) -> _zentra.Open:
        if self._open.closed:
            raise ClosedError(f'"{self.name}" has been closed', code=101, pair=self.name)
        mode = _zentra.ISEXCLLOCK if self.exclusive else _zentra.ISMANULOCK
        self._cursors.append(_zentra.Open(encoded(self.name), _zentra.ISINPUT | mode))
        return self._cursors[-1]

    # ---- changing

    def insert(self, record: Record) -> int:
        """Adds a record; returns its number. Raises DuplicateKeyError, FieldError."""
        return self._write(self._bytes_of(record, self._known_key(record)))

    def _known_key(self, record: Any) -> Any:
        """The primary key for an exception to tell; None where the record does not have one."""
        try:
            known = self.has_primary_key and not self._form.is_bytes
            return self._form.key_of(record, self._primary.names) if known else None
        except Error:
            return None

    def _write(self, data: bytes) -> int:
        Log.expect_change(self)
        self.changes += 1
        return self._open.write(data)

    def _rewrite(self, data: bytes, number: int) -> bool:
        Log.expect_change(self)
        self.changes += 1
        return self._open.rewrite(data, number)

    def _remove(self, data: bytes, number: int) -> bool:
        Log.expect_change(self)
        self.changes += 1
        return self._open.remove(data, number)

    def update(self, record: Record, *, number: Optional[int] = None) -> None:
        """Replaces the record that has the same primary key, or the one with a number. A dictionary
        may leave out fields that are to stay. Raises NoRecordError, RecordLockedError,
        DuplicateKeyError, FieldError."""
        if number is None and not self.has_primary_key:
            self._primary  # noqa: B018  raises
        if self._form.is_whole(record):
            data = self._bytes_of(record, number)
            where = number if number is not None else self._key_in(data)
            if not self._rewrite(data, number or 0):
                self._found(where, None)
            return
        key = number if number is not None else self._form.key_of(record, self._primary.names)
        with self._locked(key, number is not None, False) as found:
            self._rewrite(self._bytes_of(record, key, found[1]), found[0])

    def _key_in(self, data: bytes) -> Any:
        parts = self._primary.key_bytes(data)
        if self.values and all(self._primary.names):
            values = [self.values.by_name[name].load(part)
                      for name, part in zip(self._primary.names, parts)]
            return values[0] if len(values) == 1 else tuple(values)
        return parts[0] if len(parts) == 1 else tuple(parts)

    def upsert(self, record: Record) -> None:
        """Replaces the record that has the same primary key, or adds it. A dictionary without some
        fields leaves those of a record that is there, and makes those of a new one null."""
        self._primary  # noqa: B018  raises
        for _ in range(100):  # others may add and delete it in between
            try:
                return self.update(record)
            except NoRecordError:
                pass
            data = self._bytes_of(record, None)
            try:
                self._write(data)
                return None
            except Error as error:
                if error.code != 100 or self._open.read(1, _zentra.RD_EQUAL, data, 0) is None:
                    raise
        raise RecordLockedError("others add and delete this record all the time", code=107,
                                pair=self.name)

    def __setitem__(self, key: Any, record: Record) -> None:
        """Adds or replaces the record with a key, which a dictionary need not repeat."""
        if not self.has_primary_key:
            return self.update(record, number=key)
        index = self._primary
        if isinstance(record, Mapping) and not self._form.is_bytes and all(index.names):
            values = index.values_of(key)
            record = {**dict(zip(index.names, values)), **record}
        wanted, _ = index.wanted(key, self.least)
        base = bytes(self.least) if not self._form.is_whole(record) else None
        data = self._form.store(record, base, key)
        if index.key_bytes(data) != index.key_bytes(wanted):
            raise FieldError("the record has another key", pair=self.name, record=key)
        return self.upsert(record)

    def delete(self, key: Any = None, *, number: Optional[int] = None) -> None:
        """Deletes the record with a primary key, or with a number. Raises NoRecordError,
        RecordLockedError."""
        if (key is None) == (number is None):
            raise ArgumentError("a key or a number is wanted", code=102, pair=self.name)
        if number is None and not self.has_primary_key:
            key, number = None, key
        if number is not None:
            found = self.read_number(number) is not None and self._remove(b"", number)
        else:
            index = self._primary
            if len(index.values_of(key)) < len(index.parts):
                raise IndexKeyError(f"a key has {len(index.parts)} values", code=103, pair=self.name)
            found = self._remove(index.wanted(key, self.least)[0], 0)
        if not found:
            self._found(key if number is None else number, None)

    __delitem__ = delete

    # ---- locks

    def lock(self, key: Any = None, *, number: Optional[int] = None,
             wait: Wait = True) -> contextlib.AbstractContextManager[Record]:
        """Locks a record for other processes and gives it; the end of the block releases it.

        wait  True: as long as another process has it locked; False: not at all; else seconds

        Other locks are left alone, also those of an application that this runs in, unless it has the
        same record locked. In a transaction changed records stay locked until its end. Raises
        RecordLockedError, NoRecordError.
        """
        if (key is None) == (number is None):
            raise ArgumentError("a key or a number is wanted", code=102, pair=self.name)
        return self._lock_record(key if number is None else number, number is not None, wait)

    @contextlib.contextmanager
    def _lock_record(self, key: Any, is_number: bool, wait: Wait) -> Iterator[Record]:
        with self._locked(key, is_number, wait) as found:
            yield self.record_of(found)

    @contextlib.contextmanager
    def _locked(self, key: Any, is_number: bool, wait: Wait) -> Iterator[tuple[int, bytes]]:
        find = self.read_number if is_number else self._find
        with self._locks.record(lambda: find(key, _zentra.RD_LOCK), wait) as found:
            yield self._found(key, found)

    @contextlib.contextmanager
    def lock_all(self, *, wait: Wait = True) -> Iterator[File]:
        """Locks the whole pair against the locks and changes of other processes; record locks of this
        File that begin before its end keep it locked until they end. Raises RecordLockedError."""
        with self._locks.whole_file(wait):
            yield self

    # ---- indexes, closing

    def add_index(self, key: KeyLike) -> None:
        """Adds an index and fills it. Needs exclusive=True. Raises DuplicateKeyError."""
        if self.layout is None:
            raise LayoutError("names of fields need a layout", pair=self.name)
        self._close_cursors()
        self._open.add_index(as_key(key).described(self.layout))
        self.indexes = self._look_at_indexes()

    def drop_index(self, *which: Union[int, str]) -> None:
        """Drops an index, named as for index(). Needs exclusive=True."""
        number = self.index(*which).key.number
        self._close_cursors()
        self._open.drop_index(number)
        self.indexes = self._look_at_indexes()

    def flush(self) -> None:
        """Hands delayed changes of an exclusive open to the system."""
        self._open.flush()

    @property
    def closed(self) -> bool:
        """Whether close() has been called."""
        return self._open.closed

    def _close_cursors(self) -> None:
        self._spare.clear()
        while self._cursors:
            self._cursors.pop().close()

    def close(self) -> None:
        """Closes the pair, also for those who iterate over it, and releases its locks. Once more it does
        nothing."""
        try:
            self._close_cursors()
        finally:
            self._open.close()

    def __enter__(self) -> File:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else self.mode
        return f"<zentra.File {self.name!r} {state}>"

    def __reduce__(self):
        raise TypeError("an open pair cannot be pickled: pass its name")
