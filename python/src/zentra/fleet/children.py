"""Children of a worker that look at the pairs of one task after the other.

A child costs more to start than a small pair does to look at, so it lives on until nobody has asked it
for a while. It ends too when its standard input does, as when the worker ends.
"""

from __future__ import annotations

import contextlib
import subprocess
import threading
import time
from collections.abc import Iterator, Sequence
from typing import Any, Optional

from .report import pairs_told

_AT_ONCE = 16384  # bytes of names that are sure to have room in a pipe
_PATIENCE = 10.0  # seconds that a child may take to end when there are no more names
_IDLE = 30.0  # seconds after which a child that nobody asks ends

_turn = threading.Lock()  # of those who change the next two
_idle: dict[tuple[str, ...], list[Child]] = {}  # those kept longest stand first
_watch: Optional[threading.Timer] = None


class Child:
    """A child that is asked about pairs by their names on its standard input."""

    def __init__(self, command: Sequence[str]) -> None:
        self.command = tuple(command)
        self.is_whole = True  # it has told all that it was asked
        self.kept = 0.0  # since when nobody asks it
        self._process = subprocess.Popen([*command, "--", "-"], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def asked(self, names: Sequence[bytes]) -> Iterator[tuple[bytes, dict[str, Any], list[str]]]:
        """What it tells of the pairs, in this order; it ends sooner where the child does."""
        self.is_whole = False
        told = pairs_told(self._process.stdout)
        for some in _portions(names):
            try:
                self._process.stdin.write(b"".join(name + b"\0" for name in some))
                self._process.stdin.flush()
            except OSError:
                return
            for _ in some:
                answer = next(told, None)
                if answer is None:
                    return
                yield answer
        self.is_whole = True

    def end(self) -> None:
        """Has it end, or ends it."""
        with contextlib.suppress(OSError):
            self._process.stdin.close()
        try:
            self._process.wait(_PATIENCE if self.is_whole else 0)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()


def _portions(names: Sequence[bytes]) -> Iterator[list[bytes]]:
    """Names that may be written while nobody reads: who waits for room in the pipe to the child would
    not read what the child waits to tell."""
    some: list[bytes] = []
    size = 0
    for name in names:
        if some and size + len(name) >= _AT_ONCE:
            yield some
            some, size = [], 0
        some.append(name)
        size += len(name) + 1
    if some:
        yield some


def idle_child(command: Sequence[str]) -> Child:
    """A child of this command line that nobody asks."""
    with _turn:
        children = _idle.get(tuple(command))
        if children:
            return children.pop()
    return Child(command)


def keep(child: Child) -> None:
    """For the next task, if there is one soon; one that has not told all is ended."""
    if not child.is_whole:
        child.end()
        return
    child.kept = time.monotonic()
    with _turn:
        _idle.setdefault(child.command, []).append(child)
        _watch_them()


def _watch_them() -> None:
    global _watch
    if _watch is None and any(_idle.values()):
        _watch = threading.Timer(_IDLE, _end_old)
        _watch.daemon = True
        _watch.start()


def _end_old() -> None:
    global _watch
    due = time.monotonic() - _IDLE
    old: list[Child] = []
    with _turn:
        for children in _idle.values():
            while children and children[0].kept <= due:
                old.append(children.pop(0))
        _watch = None
        _watch_them()
    for child in old:
        child.end()
