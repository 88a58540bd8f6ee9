"""Pairs as Dask dataframes, of which each partition is a range of record numbers.

How all partitions of a pair come to be of one moment. Each is read under the pair's change stamp: it
is looked at before and after, while the pair is open, so that nobody can have it exclusively. What
was read waits in a temporary file until the stamps of all partitions have been compared. Unless they
agree, those that are not of the pair's present moment are read again, at most five times. Only then
dataframes are made of it.
"""

from __future__ import annotations

import contextlib
import io
import os
import pickle
import tempfile
import threading
import time
import uuid
import weakref
from collections.abc import Iterable, Iterator, Sequence
from types import SimpleNamespace
from typing import TYPE_CHECKING, Any, NamedTuple, Optional, Union

import numpy as np
import pandas as pd

from . import _zentra, frames
from .arrays import element_of
from .errors import ArgumentError, ChangedError
from .layouts import Layout, PathLike, as_layout, name_of
from .pairs import opened
from .recordvalues import RecordValues

if TYPE_CHECKING:
    import dask.dataframe as dd

RETRIES = 5
_PAUSE = 0.05  # seconds before the first retry; before each other twice as many as before the last
_PARTITION = 64 << 20  # bytes of records in a partition, unless the caller says how many there are
_READING = _zentra.ISINPUT | _zentra.ISMANULOCK


def read_dask(pairs: Union[PathLike, Iterable[PathLike]],
              layout: Union[Layout, str, PathLike, None] = None, *, partitions: Optional[int] = None,
              fields: Optional[Sequence[str]] = None, numbers: bool = False, decimals: str = "float",
              encoding: str = "utf-8", errors: str = "strict", invalid: str = "raise",
              hold: bool = True) -> dd.DataFrame:
    """A Dask dataframe of all records of one pair or of many, which have one layout.

    pairs       a name, or several
    layout      as for open(); without it that of the first pair
    partitions  of each pair: ranges of record numbers, as many in each. Without it one for each
                64 MiB of records
    hold        see below

    The other arguments, and what the columns are, are as for read_pandas(). Partitions follow each
    other as the pairs do, and in them the order of record numbers; without `numbers` the index
    begins at 0 in each. Nothing is read before the dataframe is computed; then the workers read the
    files, under the same absolute names.

    All partitions of a pair are of one moment, whoever changes it meanwhile: what they have read is
    held in a temporary file of the worker (in TMPDIR, else /var/tmp) until the change stamps of all
    have been compared. Where they differ, partitions are read again, at most five times, with pauses
    of up to a second between; then computing raises ChangedError, which names the pair. Of
    different pairs, and each time that the dataframe is computed, the moments are different ones. A
    worker that dies loses what it held; that is read again, and if the pair has changed by then,
    computing raises ChangedError. (It cannot where the same worker had the result of the comparison
    and nobody else yet, while results made of partitions are elsewhere: a matter of milliseconds.)

    With hold=False nothing is held: each partition becomes a dataframe at once, and raises
    ChangedError unless the stamp is still that of the beginning. That spares writing the records
    to disk, for pairs that hardly change.

    While a program has a pair open exclusively, computing raises InUseError. The pairs are opened
    once when this is called, to see how large they are. Raises what read_pandas() does.
    """
    try:
        from dask.blockwise import BlockwiseDepDict
        from dask.dataframe.core import new_dd_object
        from dask.highlevelgraph import HighLevelGraph
        from dask.layers import DataFrameIOLayer
    except ImportError:
        raise ImportError("read_dask needs the package dask (python3-dask)") from None
    names = [pairs] if isinstance(pairs, (str, bytes, os.PathLike)) else list(pairs)
    if not names or (partitions is not None and (not isinstance(partitions, int) or partitions < 1)):
        raise ArgumentError("no pairs" if not names else f"{partitions!r} partitions", code=102)
    absolute = [os.path.abspath(name_of(name)) for name in names]
    given = as_layout(layout, absolute[0]) or Layout.of(absolute[0])
    options = {"decimals": decimals, "encoding": encoding, "errors": errors, "invalid": invalid}
    form = _Form(given, tuple(f.name for f in given) if fields is None else tuple(fields), numbers,
                 options)
    with frames._source(absolute[0], given, fields=fields, last=0, **options):
        pass  # what the arguments have wrong is told now
    token = uuid.uuid4().hex  # what is read now is not what was read before
    tasks: dict[Any, Any] = {}
    parts: list[Any] = []
    for at, name in enumerate(absolute):
        size = _check(name, form)
        count = partitions or max(1, -(-size // _PARTITION))
        reader = _Reader(name, form, token)
        parts += _tasks_of(reader, f"{token}-{at}", count, hold, tasks)
    meta = form.meta()
    name = f"read-zentra-{token}"
    layer = DataFrameIOLayer(
        name=name, columns=None, io_func=_ToFrame(list(meta.columns)),
        inputs=BlockwiseDepDict({(i,): part for i, part in enumerate(parts)}, produces_keys=True))
    graph = HighLevelGraph({name: layer, f"zentra-{token}": tasks},
                           {name: {f"zentra-{token}"}, f"zentra-{token}": set()})
    return new_dd_object(graph, name, meta, [None] * (len(parts) + 1))


def _check(name: str, form: _Form) -> int:
    """Whether the layout fits the pair. How many bytes the records take."""
    with opened(name, _READING) as pair:
        form.layout.check(pair.least, pair.is_variable, name)
        return _last_number(pair) * pair.length


def _tasks_of(reader: _Reader, suffix: str, count: int, hold: bool,
              tasks: dict[Any, Any]) -> list[Any]:
    """Adds the tasks for a pair: the keys of its parts, which can become dataframes."""
    def key(step: str, at: int) -> tuple[str, int]:
        return f"zentra-{step}-{suffix}", at

    if count == 1:
        tasks[key("part", 0)] = (_Part, reader, 0, 1)
    elif not hold:
        tasks[key("moment", 0)] = (reader.moment,)
        for at in range(count):
            tasks[key("part", at)] = (_Part, reader, at, count, key("moment", 0))
    else:
        for at in range(count):
            tasks[key("read-0", at)] = (reader.hold, at, count)
        for again in range(RETRIES + 1):
            held = [key(f"read-{again}", at) for at in range(count)]
            for at in range(count):
                tasks[key(f"stamp-{again}", at)] = (_moment_of, held[at])
            tasks[key("compare", again)] = (_compare, reader, [key(f"stamp-{again}", at)
                                                               for at in range(count)], again)
            for at in range(count):
                if again < RETRIES:
                    tasks[key(f"read-{again + 1}", at)] = (_renewed, held[at], key("compare", again))
                else:
                    tasks[key("part", at)] = (_settled, held[at], key("compare", again))
    return [key("part", at) for at in range(count)]


class _ToFrame:
    """Makes a dataframe of a part; Dask asks it to make fewer columns where no others are used."""

    def __init__(self, columns: list[str]) -> None:
        self.columns = columns

    def project_columns(self, columns: Sequence[str]) -> _ToFrame:
        return _ToFrame([name for name in self.columns if name in set(columns)])

    def __call__(self, part: Union[_Part, _Held]) -> pd.DataFrame:
        return part.frame(self.columns)


class _Moment(NamedTuple):
    """A state of a pair; another one where the file is another or the stamp has been raised."""

    file: int
    stamp: int

    @classmethod
    def of(cls, pair: _zentra.Open, name: str) -> _Moment:
        return cls(os.stat(name + ".idx").st_ino, pair.stamp())


class _Compared(NamedTuple):
    agree: bool
    now: Optional[_Moment]  # of all, or of the pair since


def _moment_of(held: _Held) -> Optional[_Moment]:
    return held.moment


def _compare(reader: _Reader, moments: list[Optional[_Moment]], again: int) -> _Compared:
    """Whether they agree. If not, who changes the pair is given some time before they are renewed."""
    if moments[0] is not None and len(set(moments)) == 1:
        return _Compared(True, moments[0])
    if again < RETRIES:
        time.sleep(_PAUSE * 2 ** again)
    return _Compared(False, reader.moment())


def _renewed(held: _Held, compared: _Compared) -> _Held:
    if held.moment == compared.now:
        return held
    return held.reader.hold(held.at, held.count)


def _settled(held: _Held, compared: _Compared) -> _Held:
    if not compared.agree or held.moment != compared.now:
        raise held.reader.changed(f"in {RETRIES + 1} readings of it")
    return held


class _Form:
    """The fields that are read, and what becomes of them."""

    def __init__(self, layout: Layout, names: tuple[str, ...], numbers: bool,
                 options: dict[str, str]) -> None:
        self.layout = layout
        self.names = names
        self.numbers = numbers
        self.options = options

    def frame(self, pair: str, names: Sequence[str], columns: dict[str, np.ndarray],
              places: np.ndarray) -> pd.DataFrame:
        values = {key: value for key, value in self.options.items() if key != "decimals"}
        made = RecordValues(self.layout, self.layout.end, pair=pair, **values)
        series = {name: frames._series(SimpleNamespace(values=made), self.layout[name], columns[name],
                                       places, self.options["decimals"]) for name in names}
        index = pd.Index(places, name="number") if self.numbers else pd.RangeIndex(len(places))
        return pd.DataFrame(series, index=index, copy=False)

    def meta(self) -> pd.DataFrame:
        """The same without records."""
        lenient, unscaled = self.options["invalid"] == "null", self.options["decimals"] == "exact"
        columns = {name: np.empty(0, element_of(self.layout[name], lenient=lenient,
                                                unscaled=unscaled).dtype) for name in self.names}
        return self.frame("", self.names, columns, np.empty(0, "i4"))


class _Reader:
    """Reads parts of a pair."""

    def __init__(self, name: str, form: _Form, token: str) -> None:
        self.name = name
        self.form = form
        self.token = token

    def changed(self, when: str) -> ChangedError:
        return ChangedError(f'"{self.name}" has been changed {when}', pair=self.name)

    def moment(self) -> _Moment:
        with opened(self.name, _READING) as pair:
            return _Moment.of(pair, self.name)

    @contextlib.contextmanager
    def _read(self, at: int, count: int, names: Sequence[str]) -> Iterator[tuple[Any, ...]]:
        """Moment, columns and places of a part; the moment is None if something changed meanwhile."""
        with opened(self.name, _READING) as pair:  # nobody gets the pair exclusively
            before = _Moment.of(pair, self.name)
            last = _last_number(pair)
            ends = [part * last // count for part in (at, at + 1)]
            with frames._source(self.name, self.form.layout, fields=names, first=ends[0] + 1,
                                last=ends[1], **self.form.options) as source:
                room = ends[1] - ends[0]
                columns = source.columns(room)
                places = np.empty(room, "i4")
                got = source.fill(columns, places, 0, room)
            unchanged = _Moment.of(pair, self.name) == before
        yield before if unchanged else None, [column[:got] for column in columns], places[:got]

    def hold(self, at: int, count: int) -> _Held:
        with self._read(at, count, self.form.names) as (moment, columns, places):
            return _Held.of(self, at, count, moment, [places, *columns])

    def frame(self, at: int, count: int, names: Sequence[str],
              wanted: Optional[_Moment]) -> pd.DataFrame:
        for again in range(RETRIES + 1):
            with self._read(at, count, names) as (moment, columns, places):
                if moment is not None and wanted in (None, moment):
                    return self.form.frame(self.name, names, dict(zip(names, columns)), places)
            if wanted is not None:
                raise self.changed("since its first partition was read")
            if again < RETRIES:
                time.sleep(_PAUSE * 2 ** again)
        raise self.changed(f"in {RETRIES + 1} readings of it")


def _last_number(pair: _zentra.Open) -> int:
    found = pair.read(0, _zentra.RD_LAST, b"", 0)
    return found[0] if found else 0


class _Part(NamedTuple):
    """A part that is still to be read."""

    reader: _Reader
    at: int
    count: int
    moment: Optional[_Moment] = None  # the one wanted, if there are other parts

    def frame(self, names: Sequence[str]) -> pd.DataFrame:
        return self.reader.frame(self.at, self.count, names, self.moment)


# -------------------- what is held --------------------


class _Spool:
    """A temporary file without a name, which ends with the last part in it."""

    _of_tokens: weakref.WeakValueDictionary = weakref.WeakValueDictionary()
    _taking = threading.Lock()

    def __init__(self) -> None:
        self.file = tempfile.TemporaryFile(buffering=0, dir=os.environ.get("TMPDIR") or "/var/tmp")
        self.end = 0

    @classmethod
    def take(cls, token: str, size: int) -> tuple[_Spool, int]:
        """The file of a dataframe in this process, and where there is room for so many bytes."""
        with cls._taking:
            spool = cls._of_tokens.get((token, os.getpid()))
            if spool is None:
                spool = cls._of_tokens[token, os.getpid()] = _Spool()
            at = spool.end
            spool.end += size
            return spool, at

    def put(self, data: memoryview, at: int) -> None:
        while len(data):
            done = os.pwrite(self.file.fileno(), data, at)
            data, at = data[done:], at + done

    def get(self, room: memoryview, at: int) -> None:
        while len(room):
            done = os.preadv(self.file.fileno(), [room], at)
            if done == 0:
                raise EOFError("what was held is gone")
            room, at = room[done:], at + done


class _Held:
    """A part as it was read, in a file; pickled, it is its bytes."""

    def __init__(self, reader: _Reader, at: int, count: int, moment: Optional[_Moment], size: int,
                 columns: list[tuple[Any, int, int]]) -> None:
        self.reader = reader
        self.at = at
        self.count = count
        self.moment = moment
        self.size = size
        self.columns = columns  # type, number of elements, bytes: the numbers first
        self.spool, self.begin = _Spool.take(reader.token, size)

    @classmethod
    def of(cls, reader: _Reader, at: int, count: int, moment: Optional[_Moment],
           arrays: list[np.ndarray]) -> _Held:
        data = [_bytes_of(array) for array in arrays] if moment is not None else []
        columns = [(array.dtype, len(array), len(part)) for array, part in zip(arrays, data)]
        held = cls(reader, at, count, moment, sum(len(part) for part in data), columns)
        place = held.begin
        for part in data:
            held.spool.put(part, place)
            place += len(part)
        return held

    def frame(self, names: Sequence[str]) -> pd.DataFrame:
        form = self.reader.form
        columns = {name: self._column(1 + form.names.index(name)) for name in names}
        return form.frame(self.reader.name, names, columns, self._column(0))

    def _column(self, number: int) -> np.ndarray:
        dtype, count, size = self.columns[number]
        data = np.empty(size, "u1")
        self.spool.get(memoryview(data), self.begin + sum(c[2] for c in self.columns[:number]))
        if dtype != object:
            return data.view(dtype) if count else np.empty(0, dtype)
        column = np.empty(count, object)
        column[:] = pickle.load(io.BytesIO(data))
        return column

    def __sizeof__(self) -> int:
        return self.size

    def __reduce__(self) -> tuple[Any, ...]:
        data = bytearray(self.size)
        self.spool.get(memoryview(data), self.begin)
        return _held_again, ((self.reader, self.at, self.count, self.moment, self.size, self.columns),
                             pickle.PickleBuffer(data))


def _held_again(arguments: tuple[Any, ...], data: Any) -> _Held:
    held = _Held(*arguments)
    held.spool.put(memoryview(data), held.begin)
    return held


def _bytes_of(array: np.ndarray) -> memoryview:
    if array.dtype == object:
        return memoryview(pickle.dumps(list(array), protocol=5))
    return memoryview(np.ascontiguousarray(array).view("u1").reshape(-1))


__all__ = ["RETRIES", "read_dask"]
