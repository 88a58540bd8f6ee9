"""What runs on the workers: a child `zentra` for some pairs, and what its report says of each."""

from __future__ import annotations

import contextlib
import os
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator, Sequence
from typing import IO, Any, Optional

from .children import idle_child, keep
from .report import pairs_told

UNFINISHED = 4  # the status of what could not be looked at
_PATIENCE = 60.0  # seconds that a child which has told all may take to end

Row = dict[str, Any]


def check_some(names: Sequence[bytes], program: str, options: Sequence[str]) -> list[Row]:
    """A row for each pair, in this order, told by a child that lives on for the next ones. What it did
    not come to is looked at by a child of its own."""
    command = [program, "check", "--json", *options]
    rows: dict[bytes, Row] = {}
    child = idle_child(command)
    try:
        _take_rows(rows, child.asked(names), names)
    finally:
        keep(child)
    for name in names:
        if name not in rows:
            rows.update(_rows_of(command, [name]))
    return [rows.get(name) or lost(name, "the report tells nothing of it") for name in names]


def dump_some(names: Sequence[bytes], targets: Sequence[bytes], program: str,
              options: Sequence[str]) -> list[Row]:
    """The same for dumps into files, one child for each pair."""
    rows = []
    for name, target in zip(names, targets):
        try:
            os.makedirs(os.path.dirname(target), exist_ok=True)
        except OSError as error:
            rows.append(lost(name, f"the folder for it: {error.strerror}"))
            continue
        command = [program, "dump", "--json", "-o", os.fsdecode(target), *options]
        row = _rows_of(command, [name]).get(name) or lost(name, "nothing is told of it")
        rows.append({**row, "target": os.fsdecode(target)})
    return rows


def lost(name: bytes, why: str) -> Row:
    """The row of a pair that could not be looked at."""
    return {"pair": os.fsdecode(name), "verdict": "unfinished", "status": UNFINISHED, "findings": 0,
            "codes": "", "records": None, "bytes": bytes_of(name), "seconds": 0.0,
            "message": why, "worker": _worker()}


def _rows_of(command: Sequence[str], names: Sequence[bytes]) -> dict[bytes, Row]:
    """What a child of their own tells of the pairs, as far as it comes."""
    rows: dict[bytes, Row] = {}
    with tempfile.TemporaryFile() as errors, _child(command, names, errors) as child:
        _take_rows(rows, pairs_told(child.stdout), names)
        child.wait(_PATIENCE)
        errors.seek(0)
        said = errors.read(4096)
    if len(names) == 1 and names[0] not in rows:
        rows[names[0]] = lost(names[0], _why(child.returncode, said))
    return rows


def _take_rows(rows: dict[bytes, Row], told: Iterator[tuple[bytes, Row, list[str]]],
               names: Sequence[bytes]) -> None:
    """Makes a row of each pair whose end is told."""
    sizes = {name: bytes_of(name) for name in names}
    worker = _worker()
    began = time.perf_counter()
    for pair, end, codes in told:
        now = time.perf_counter()
        rows[pair] = {
            "pair": os.fsdecode(pair), "verdict": str(end.get("verdict")),
            "status": int(end.get("status", UNFINISHED)), "findings": int(end.get("findings", 0)),
            "codes": " ".join(codes), "records": end.get("records"), "bytes": sizes.get(pair),
            "seconds": float(end.get("seconds", now - began)),
            "message": str(end.get("message", "")), "worker": worker}
        began = now


@contextlib.contextmanager
def _child(command: Sequence[str], names: Sequence[bytes], errors: IO[bytes]) -> Iterator[Any]:
    """A child, which is no more at the end."""
    words = [os.fsencode(word) for word in command] + [b"--", *names]
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=errors) as child:
        try:
            yield child
        finally:
            if child.poll() is None:
                child.kill()


def _why(status: int, said: bytes) -> str:
    if status < 0:
        return f"could not be finished: signal {-status}"
    told = said.decode("utf-8", "backslashreplace").strip().split("\n")[0]
    return told or f"could not be finished: status {status}"


def bytes_of(name: bytes) -> Optional[int]:
    """Of both files together; None without them."""
    size = None
    for suffix in (b".dat", b".idx"):
        with contextlib.suppress(OSError, ValueError):
            size = (size or 0) + os.stat(name + suffix).st_size
    return size


def _worker() -> str:
    if "distributed" not in sys.modules:  # in no cluster
        return ""
    from distributed import get_worker

    try:
        return str(get_worker().address)
    except ValueError:
        return ""
