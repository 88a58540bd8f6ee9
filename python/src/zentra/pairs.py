"""Opens of the compiled part, and what belongs to the process: those to be closed at its end."""

from __future__ import annotations

import atexit
import contextlib
import os
import weakref
from collections.abc import Iterator
from typing import Optional

from . import _zentra
from .errors import PairNameError
from .layouts import PathLike, name_of

_alive: weakref.WeakSet = weakref.WeakSet()


def encoded(name: PathLike) -> bytes:
    """A file's name as the library takes it."""
    data = os.fsencode(name)
    if b"\0" in data:
        raise PairNameError(f"{name!r} holds a zero byte", code=114)
    return data


def room_in(name: str, least: int) -> Optional[int]:
    """How many records the data file can have: a damaged dictionary may count any number. None where
    the file is not to be found."""
    try:
        return os.path.getsize(encoded(name) + b".dat") // (least + 1) + 1
    except OSError:
        return None


@contextlib.contextmanager
def opened(name: PathLike, mode: int) -> Iterator[_zentra.Open]:
    """An open pair, closed at the end."""
    pair = _zentra.Open(encoded(name_of(name)), mode)
    try:
        yield pair
    finally:
        pair.close()


def close_at_exit(thing: object) -> None:
    """Has close() called when the interpreter ends: an exclusive open may still hold changes."""
    _alive.add(thing)


@atexit.register
def _close_all() -> None:
    for thing in list(_alive):
        with contextlib.suppress(Exception):
            thing.close()
