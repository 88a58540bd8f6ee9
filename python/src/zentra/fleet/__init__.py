"""Thousands of pairs, looked at by the workers of a Dask cluster.

    with zentra.fleet.local_cluster() as client:
        table = zentra.fleet.check("/data/**/*.dat", client)
    zentra.fleet.write_summary(table, "report.html")

The workers need this package, the program `zentra`, and the files under the same names. Each of
them should have one thread (`dask worker --nthreads 1`), for a check keeps a processor busy.
`python3 -m zentra.fleet --help` tells of the command line.
"""

from __future__ import annotations

import contextlib
import itertools
import os
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import TYPE_CHECKING, Any, NamedTuple, Optional, Union

from ..errors import ArgumentError, Error
from ..layouts import PathLike
from . import worker
from .listing import Found, Listing

if TYPE_CHECKING:
    import pandas as pd
    from distributed import Client

BATCH = 20  # pairs in one task
_BATCH_BYTES = 256 << 20  # and so many bytes of them, where there are more than one
_AHEAD = 16  # tasks that are handed out for each worker; more when half of them are done
_FETCHED = 8  # tasks for each worker whose results are fetched at once ...
_LATEST = 0.5  # ... or those of so many seconds
WORKERS_WITHIN = 30  # seconds in which a cluster without workers is to have some
_LISTINGS = 3  # of what the patterns mean: pairs may appear
COLUMNS = ("pair", "verdict", "status", "findings", "codes", "records", "bytes", "seconds", "message",
           "worker")

Patterns = Union[PathLike, Iterable[PathLike]]


def check(patterns: Patterns, client: Client, *, quick: bool = False, wait: float = 10,
          batch: int = BATCH, program: str = "zentra",
          progress: Optional[Callable[[int, int], None]] = None) -> pd.DataFrame:
    """Looks at every pair that the patterns mean, by `zentra check --json` on the workers.

    patterns  names of pairs, or patterns as the shell has them, with `**` for folders below folders
    quick, wait  as the options of `zentra check`: look at less; seconds to wait for a lock
    batch     pairs that one task, and one child of a worker, looks at
    program   the program zentra, as the workers find it
    progress  is called with the numbers of pairs done and found

    Returns a dataframe with a row for each pair, in the order in which they were found:

    pair      its absolute base name; bytes outside the encoding as surrogates (os.fsdecode)
    verdict, status  "sound" 0, "damaged" 1, "needs-salvage" 2, "in-use" 3, "unfinished" 4
    findings, codes  how many findings, and the codes of them with blanks between
    records, bytes   in the pair; of both files
    seconds   that looking at it took
    message   the sentence about it
    worker    the address of the worker

    Pairs that appear while others are looked at are looked at, too; of those that vanish the message
    tells. A folder that cannot be read is a row, and so is a pattern that means nothing: "unfinished".
    When a worker dies its task is given to another one. A pair during which several workers die is
    "unfinished", nothing else is. Raises Error where there are no workers, or they do not have the
    program.
    """
    options = ["--wait", str(wait), *(["--quick"] if quick else [])]

    def arguments(found: Sequence[Found]) -> tuple[Any, ...]:
        return [pair.name for pair in found], program, options

    run = _Run(Listing(_listed(patterns)), client, _positive(batch), program, progress)
    return _run(run, run.listing.new_pairs(), _Task(worker.check_some, arguments))


def dump(patterns: Patterns, folder: PathLike, client: Client, *, form: str = "jsonl",
         layout: Optional[PathLike] = None, wait: float = 10, program: str = "zentra",
         progress: Optional[Callable[[int, int], None]] = None) -> pd.DataFrame:
    """Writes the records of every pair that the patterns mean, by `zentra dump` on the workers.

    folder  where the files go, each with the name of its pair and `.jsonl`, `.csv` or `.raw`, in
            folders as below the part of its pattern before the first wildcard; the workers' folder
    form    "jsonl", "csv" or "raw"
    layout  a file for all; else each pair's own, or its draft

    Returns a dataframe as check() does, with the column "target"; in it status 2 means that records
    are left out. A file gets its name when it is whole. Raises ArgumentError where two pairs would
    have one file.
    """
    if form not in ("jsonl", "csv", "raw"):
        raise ArgumentError(f'dumps are "jsonl", "csv" or "raw", not {form!r}', code=102)
    root = os.path.abspath(os.fsencode(folder))
    options = ["--format", form, "--wait", str(wait)]
    if layout is not None:
        options += ["--layout", os.path.abspath(os.fsdecode(layout))]
    taken: dict[bytes, bytes] = {}

    def arguments(found: Sequence[Found]) -> tuple[Any, ...]:
        targets = [os.path.join(root, pair.place) + b"." + form.encode() for pair in found]
        for pair, target in zip(found, targets):
            if taken.setdefault(target, pair.name) != pair.name:
                both = " and ".join(repr(os.fsdecode(name)) for name in (taken[target], pair.name))
                raise ArgumentError(f"{both} would be written to one file; name their folders in "
                                    "patterns of their own runs", code=102)
        return [pair.name for pair in found], targets, program, options

    run = _Run(Listing(_listed(patterns)), client, BATCH, program, progress)
    pairs = run.listing.new_pairs()
    arguments([pair for pair in pairs if not pair.why])
    return _run(run, pairs, _Task(worker.dump_some, arguments), more=("target",))


def worst(table: pd.DataFrame) -> int:
    """The exit status that `zentra check` has for such pairs: the greatest of theirs."""
    return int(table["status"].max()) if len(table) else 0


@contextlib.contextmanager
def local_cluster(workers: Optional[int] = None) -> Iterator[Client]:
    """A cluster of processes on this machine with one thread each; as many as it has processors."""
    try:
        from distributed import Client, LocalCluster
    except ImportError:
        raise ImportError("zentra.fleet needs the package distributed (python3-distributed)") from None
    import logging

    count = workers or len(os.sched_getaffinity(0))
    with LocalCluster(n_workers=count, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None, memory_limit=0, silence_logs=logging.CRITICAL) as cluster:
        with Client(cluster) as client:
            yield client


def write_summary(table: pd.DataFrame, path: PathLike, title: str = "Indexed files") -> None:
    """Writes one HTML page about the pairs: verdicts, those that need work, and plots of verdicts by
    folder, of sizes and of times. The page refers to nothing outside of itself. Needs matplotlib."""
    from .summary import page

    with open(path, "w", encoding="utf-8") as file:
        file.write(page(table, title))


# -------------------- how they are handed out --------------------


class _Run(NamedTuple):
    listing: Listing
    client: Client
    batch: int
    program: str
    progress: Optional[Callable[[int, int], None]]


class _Task(NamedTuple):
    """What the workers do with some pairs."""

    function: Callable[..., list[dict[str, Any]]]
    arguments: Callable[[Sequence[Found]], tuple[Any, ...]]


def _listed(patterns: Patterns) -> list[PathLike]:
    if isinstance(patterns, (str, bytes, os.PathLike)):
        return [patterns]
    return list(patterns)


def _positive(batch: int) -> int:
    if not isinstance(batch, int) or batch < 1:
        raise ArgumentError(f"{batch!r} pairs in a task", code=102)
    return batch


def _run(run: _Run, new: list[Found], task: _Task, more: Sequence[str] = ()) -> pd.DataFrame:
    try:
        import pandas as pd
    except ImportError:
        raise ImportError("zentra.fleet needs the package pandas (python3-pandas)") from None
    _expect_workers(run.client)
    rows: dict[bytes, dict[str, Any]] = {}
    for left in reversed(range(_LISTINGS)):
        if not new:
            break
        rows.update((pair.name, {}) for pair in new)  # in this order
        for pair in new:
            if pair.why:
                rows[pair.name] = worker.lost(pair.name, pair.why)
        _hand_out(run, [pair for pair in new if not pair.why], task, rows)
        new = run.listing.new_pairs() if left else []
    table = pd.DataFrame(list(rows.values()), columns=[*COLUMNS, *more])
    return table.astype({"status": "int64", "findings": "int64", "records": "Int64", "bytes": "Int64",
                         "seconds": "float64"})


def _expect_workers(client: Client) -> None:
    if client.ncores():
        return
    try:
        client.wait_for_workers(1, timeout=WORKERS_WITHIN)
    except TimeoutError:
        raise Error(f"the cluster has no workers, in {WORKERS_WITHIN} seconds") from None


def _portions(found: list[Found], batch: int) -> Iterator[list[Found]]:
    """Those for one task each: large pairs first, so that no worker ends long after the others."""
    portion: list[Found] = []
    total = 0
    for pair in sorted(found, key=lambda pair: -pair.size):
        if portion and (len(portion) == batch or total + pair.size > _BATCH_BYTES):
            yield portion
            portion, total = [], 0
        portion.append(pair)
        total += pair.size
    if portion:
        yield portion


class _HandOut:
    """The portions of a run on their way to the workers and back."""

    def __init__(self, run: _Run, found: list[Found], task: _Task) -> None:
        from distributed import as_completed

        self._run = run
        self._task = task
        self._waiting = _portions(found, run.batch)
        self._suspects: list[Found] = []  # who of those on a worker made it die is not told: each alone
        self._tried: set[bytes] = set()
        self._given: dict[Any, list[Found]] = {}
        self._results = as_completed([])
        self._workers = 1

    def results(self) -> Iterator[list[dict[str, Any]]]:
        """The rows of portions that have come back, many at a time: each message costs as much as some
        small pairs."""
        self._give()
        ended: list[Any] = []
        fetched = time.monotonic()
        while self._given:
            ended += self._results.next_batch()
            few = len(ended) < min(_FETCHED * self._workers, len(self._given))
            if few and time.monotonic() < fetched + _LATEST:
                continue
            yield list(itertools.chain.from_iterable(self._told(ended)))
            ended, fetched = [], time.monotonic()
            self._give()

    def _give(self) -> None:
        self._workers = max(1, len(self._run.client.ncores()))  # they may have come
        room = _AHEAD * self._workers
        if len(self._given) > room // 2:
            return
        portions = list(itertools.islice(self._waiting, room - len(self._given)))
        if not portions and not self._given and self._suspects:
            portions = [[self._suspects.pop()]]
            self._tried.add(portions[0][0].name)
        if portions:
            arguments = zip(*map(self._task.arguments, portions))
            futures = self._run.client.map(self._task.function, *arguments, pure=False)
            self._given.update(zip(futures, portions))
            self._results.update(futures)

    def _told(self, futures: list[Any]) -> Iterator[list[dict[str, Any]]]:
        whole = [future for future in futures if future.status == "finished"]
        try:
            results = dict(zip(whole, self._run.client.gather(whole)))
        except Exception:  # noqa: BLE001  one of them went with its worker: it is asked for by itself
            results = {}
        for future in futures:
            portion = self._given.pop(future)
            yield results[future] if future in results else self._told_alone(future, portion)
            future.release()

    def _told_alone(self, future: Any, portion: list[Found]) -> list[dict[str, Any]]:
        from asyncio import CancelledError

        try:
            return future.result()
        except FileNotFoundError as error:
            raise Error(f"the workers have no program {self._run.program!r}: {error.strerror}") from None
        except CancelledError:
            raise Error("the scheduler of the cluster has gone") from None
        except Exception as error:  # noqa: BLE001  whatever became of it, the others go on
            if portion[0].name in self._tried:
                return [worker.lost(portion[0].name, _failure(error))]
            self._suspects.extend(portion)
            return []


def _hand_out(run: _Run, found: list[Found], task: _Task, rows: dict[bytes, dict[str, Any]]) -> None:
    done = sum(1 for row in rows.values() if row)
    for told in _HandOut(run, found, task).results():
        rows.update((os.fsencode(row["pair"]), row) for row in told)
        done += len(told)
        if run.progress is not None:
            run.progress(done, len(rows))


def _failure(error: Exception) -> str:
    from distributed.scheduler import KilledWorker

    if isinstance(error, KilledWorker):
        return "could not be finished: each worker that looked at it died"
    return f"could not be finished: {type(error).__name__}: {error}"


__all__ = ["BATCH", "COLUMNS", "check", "dump", "local_cluster", "worst", "write_summary"]
