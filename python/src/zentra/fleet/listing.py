"""Which pairs are meant: names, and patterns as the shell has them.

Names are bytes here: files may have any. `**` stands for any number of folders, links to folders left
out; wildcards leave out names that begin with a dot. A pattern is for either file of a pair or for
its base name. Folders that cannot be read are told, not passed by.
"""

from __future__ import annotations

import contextlib
import os
import re
from collections.abc import Iterable, Iterator
from typing import NamedTuple

from ..layouts import PathLike

_SUFFIXES = (b".dat", b".idx")
_MAGIC = re.compile(rb"[*?[]")


class Found(NamedTuple):
    """A pair: its base name, and its place below the fixed part of its pattern."""

    name: bytes
    place: bytes
    why: str = ""  # what stands in the way of looking for it or in this folder
    size: int = 0  # of both files


class Listing:
    """The pairs that patterns mean, each once, by whatever names; the names are absolute."""

    def __init__(self, patterns: Iterable[PathLike]) -> None:
        self._patterns = [os.fsencode(pattern) for pattern in patterns]
        self._names: set[bytes] = set()
        self._files: dict[tuple[int, ...], bytes] = {}  # by what the system knows them by: the name

    def new_pairs(self) -> list[Found]:
        """Those that no call before has told."""
        found: list[Found] = []
        for pattern in self._patterns:
            for pair in _pairs_of(pattern):
                if pair.name in self._names:
                    continue
                self._names.add(pair.name)
                files, size = _files_of(pair.name)
                if files:
                    other = self._files.get(files)
                    if other is not None and _files_of(other)[0] == files:  # else new ones in their place
                        continue
                    self._files[files] = pair.name
                found.append(pair._replace(size=size))
        return found


def _files_of(name: bytes) -> tuple[tuple[int, ...], int]:
    """By what the system knows both files, nothing where one is missing, and their size."""
    files: tuple[int, ...] = ()
    size = 0
    for suffix in _SUFFIXES:
        with contextlib.suppress(OSError, ValueError):
            status = os.stat(name + suffix)
            files += status.st_dev, status.st_ino
            size += status.st_size
    return files if len(files) == 4 else (), size


def base_of(name: bytes) -> bytes:
    return name[:-4] if name.endswith(_SUFFIXES) else name


def _pairs_of(pattern: bytes) -> Iterator[Found]:
    path = os.path.abspath(pattern)
    if _MAGIC.search(pattern) is None or any(os.path.lexists(base_of(path) + s) for s in _SUFFIXES):
        yield Found(base_of(path), os.path.basename(base_of(path)))
        return
    parts = path.split(b"/")[1:]
    fixed = next(at for at, part in enumerate(parts) if _MAGIC.search(part))
    root = b"/" + b"/".join(parts[:fixed])
    any_found = False
    for pair in _below(root, root, parts[fixed:]):
        any_found = True
        yield pair
    if not any_found:
        yield Found(path, os.path.basename(path), "no pair has such a name")


def _below(root: bytes, folder: bytes, parts: list[bytes]) -> Iterator[Found]:
    """The pairs of which the way from `folder` on is as the parts say."""
    first, rest = parts[0], parts[1:]
    try:
        with os.scandir(folder) as entries:
            here = sorted(entries, key=lambda entry: entry.name)
    except OSError as error:
        if isinstance(error, (FileNotFoundError, NotADirectoryError)):
            return
        yield Found(folder, _place(folder, root), f"the folder: {error.strerror}")
        return
    if first == b"**":
        yield from _below(root, folder, rest or [b"*"])
        for entry in here:
            if not entry.name.startswith(b".") and _is_folder(entry, links=False):
                yield from _below(root, entry.path, parts)
        return
    matches = _matcher(first)
    if rest:
        for entry in here:
            if matches(entry.name) and _is_folder(entry, links=True):
                yield from _below(root, entry.path, rest)
        return
    for base in sorted({base_of(e.name) for e in here
                        if e.name.endswith(_SUFFIXES) and len(e.name) > 4
                        and (matches(e.name) or matches(base_of(e.name)))}):
        path = os.path.join(folder, base)
        yield Found(path, _place(path, root))


def _place(path: bytes, root: bytes) -> bytes:
    return path[len(root):].lstrip(b"/")


def _is_folder(entry: os.DirEntry, *, links: bool) -> bool:
    try:
        return entry.is_dir(follow_symlinks=links)
    except OSError:
        return False


def _matcher(part: bytes):
    import fnmatch

    form = re.compile(fnmatch.translate(part.decode("latin-1")).encode("latin-1"), re.S)
    hides = not part.startswith(b".")
    return lambda name: form.match(name) is not None and not (hides and name.startswith(b"."))
