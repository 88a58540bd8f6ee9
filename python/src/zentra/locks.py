"""What the process has locked by this package, and when each lock goes.

Locks belong to the process: two blocks that lock the same record, of one File or of several, share its
lock, and the last of them releases it.
"""

from __future__ import annotations

import contextlib
import os
import threading
import time
from collections import Counter
from collections.abc import Callable, Iterator
from typing import Any, Optional, Union

from . import _zentra
from .errors import ForkError, RecordLockedError

Wait = Union[bool, float]
Found = Optional[tuple[int, bytes]]

_LONGEST_NAP = 0.02


class _Held:
    """How many blocks have each record of each pair locked, and the turn of those who change that."""

    def __init__(self) -> None:
        self.turn = threading.Lock()
        self.blocks: Counter[tuple[str, int]] = Counter()


_held = _Held()
os.register_at_fork(after_in_child=_held.__init__)  # type: ignore[misc]


class Locks:
    """The locks that one File takes, by its open."""

    def __init__(self, opened: _zentra.Open, name: str) -> None:
        self._open = opened
        self._name = name
        self._pair = os.path.realpath(name)
        self._records = 0  # blocks that have one locked
        self._whole = 0  # blocks that have the whole file locked
        self._is_whole = False

    @contextlib.contextmanager
    def record(self, find: Callable[[], Found], wait: Wait) -> Iterator[Found]:
        """Locks the record that `find` reads and locks, if there is one."""
        found = patiently(lambda: self._take(find), wait)
        try:
            yield found
        finally:
            if found is not None:
                self._leave(found[0])

    def _take(self, find: Callable[[], Found]) -> Found:
        with _held.turn:
            found = find()
            if found is not None:
                _held.blocks[self._pair, found[0]] += 1
                self._records += 1
            return found

    def _leave(self, number: int) -> None:
        with _held.turn:
            key = self._pair, number
            _held.blocks[key] -= 1
            self._records -= 1
            if _held.blocks[key] <= 0:
                del _held.blocks[key]
                self._release(lambda: self._open.release(number))
            self._leave_file()

    @contextlib.contextmanager
    def whole_file(self, wait: Wait) -> Iterator[None]:
        """Locks the whole file, in which other blocks may have records locked; it stays locked as long
        as they do, since all locks would go with that of the file."""
        patiently(self._take_file, wait)
        try:
            yield
        finally:
            with _held.turn:
                self._whole -= 1
                self._leave_file()

    def _take_file(self) -> None:
        with _held.turn:
            if not self._open.lock_file():
                raise RecordLockedError(f'another process has a lock in "{self._name}"', code=107,
                                        pair=self._name)
            self._whole += 1
            self._is_whole = True

    def _leave_file(self) -> None:
        if self._is_whole and not self._whole and not self._records:
            self._is_whole = False
            self._release(self._open.unlock_file)

    def _release(self, call: Callable[[], Any]) -> None:
        if not self._open.closed:
            with contextlib.suppress(ForkError):  # a child has none of its parent's locks
                call()


def patiently(attempt: Callable[[], Any], wait: Wait) -> Any:
    """What `attempt` gives, tried again until nothing is locked any more. The library is left in
    between, so that other threads can release what others wait for."""
    end = None if wait is True else time.monotonic() + float(wait)
    nap = 0.0005
    while True:
        try:
            return attempt()
        except RecordLockedError:
            if end is not None and time.monotonic() >= end:
                raise
        time.sleep(nap if end is None else max(0.0, min(nap, end - time.monotonic())))
        nap = min(nap * 1.5, _LONGEST_NAP)
