"""Opening pairs, making them, and what is done to whole pairs."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Optional, Union

from . import _zentra
from .errors import ArgumentError, LayoutError, RecordLengthError
from .keys import Key, KeyLike, as_key
from .layouts import Layout, PathLike, as_layout, name_of
from .logs import Log
from .pairs import encoded
from .records import File

_MODES = {"r": _zentra.ISINPUT, "r+": _zentra.ISINOUT}


def _mode_of(mode: str, exclusive: bool, transactions: Optional[bool]) -> int:
    if mode not in _MODES:
        raise ArgumentError(f'the mode is "r" or "r+", not {mode!r}', code=102)
    number = _MODES[mode] | (_zentra.ISEXCLLOCK if exclusive else _zentra.ISMANULOCK)
    if transactions is None:
        transactions = Log.is_open() and mode == "r+"
    return number | (_zentra.ISTRANS if transactions else 0)


def open(name: PathLike, layout: Union[Layout, str, PathLike, None] = None, mode: str = "r", *,  # noqa: A001
         record: Optional[type] = None, exclusive: bool = False,
         transactions: Optional[bool] = None, encoding: str = "utf-8", errors: str = "strict",
         invalid: str = "raise") -> File:
    """Opens a pair, a context manager that closes it.

    name          of the pair, without or with the ending of one of its two files
    layout        a Layout, its text or its file; without one NAME.layout beside the pair, else what
                  Layout.draft() guesses
    mode          "r" to read, "r+" to read and write
    record        what a record is: dict (so without it), bytes, or a class that is called with the
                  fields' values by name and has attributes of these names, such as a dataclass
    exclusive     nobody else may have the pair open meanwhile; changes may be written at the end
    transactions  whether changes belong to transactions; without it, whether a log is open
    encoding      of texts; `errors` as in bytes.decode()
    invalid       "null" reads bytes without meaning, such as a date that is none, as None

    Raises NoPairError, AccessError, InUseError, DamagedError, LayoutError and others of errors.
    """
    pair = name_of(name)
    given = None if record is bytes and layout is None else as_layout(layout, pair)
    opened = _zentra.Open(encoded(pair), _mode_of(mode, exclusive, transactions))
    try:
        if given is None and record is not bytes:
            given = Layout.of(pair)
        return File(pair, opened, given, mode, record, exclusive=exclusive,
                    transactions=transactions, encoding=encoding, errors=errors, invalid=invalid)
    except BaseException:
        opened.close()
        raise


def create(name: PathLike, layout: Union[Layout, str, PathLike], keys: Union[KeyLike, Sequence[KeyLike], None],
           *, longest: Optional[int] = None, length: Optional[int] = None, exclusive: bool = False,
           record: Optional[type] = None, transactions: Optional[bool] = None,
           encoding: str = "utf-8", errors: str = "strict", save_layout: bool = False) -> File:
    """Makes a pair and opens it to read and write.

    keys         the indexes, the primary one first: names of fields, tuples of names, or Keys. None
                 or an empty list makes a pair in the order of record numbers.
    length       bytes of the fixed part; without it as far as the layout reaches
    longest      with a tail, the greatest bytes of a record in all; without it 1024 more than `length`
    save_layout  writes the layout to NAME.layout

    The rest is as for open(). Raises PairExistsError, IndexKeyError, LayoutError, RecordLengthError.
    """
    pair = name_of(name)
    given = as_layout(layout, pair)
    if given is None:
        raise LayoutError("a pair is made from a layout")
    wanted = [as_key(key) for key in _keys_of(keys)]
    least = length if length is not None else given.end
    if longest is not None and given.tail is None:
        raise ArgumentError("`longest` is for layouts with a tail", code=102)
    most = (longest if longest is not None else least + 1024) if given.tail else least
    given.check(least, given.tail is not None, pair)
    if not 1 <= least <= most <= 32511 or (given.tail and least == most):
        raise RecordLengthError(f"records of {least} to {most} bytes; from 1 to 32511 is possible",
                                code=132, pair=pair)
    described = [key.described(given) for key in wanted]
    none = _zentra.KeyOf(0, [])
    mode = _mode_of("r+", exclusive or len(described) > 1, transactions)
    opened = _zentra.Open.build(encoded(pair), least, most, described[0] if described else none, mode)
    try:
        for key in described[1:]:
            opened.add_index(key)
        if save_layout:
            given.save(pair)
        if len(described) > 1 and not exclusive:
            opened.close()
            opened = _zentra.Open(encoded(pair), _mode_of("r+", False, transactions))
        return File(pair, opened, given, "r+", record, exclusive=exclusive,
                    transactions=transactions, encoding=encoding, errors=errors)
    except BaseException:
        opened.close()
        _zentra.erase(encoded(pair))
        raise


def _keys_of(keys: Union[KeyLike, Sequence[KeyLike], None]) -> Sequence[KeyLike]:
    if keys is None:
        return []
    return [keys] if isinstance(keys, (str, Key)) else list(keys)


def erase(name: PathLike) -> None:
    """Removes a pair that nobody has open. Raises NoPairError, InUseError."""
    _zentra.erase(encoded(name_of(name)))


def rename(name: PathLike, new_name: PathLike) -> None:
    """Gives a pair that nobody has open another name. Raises InUseError, PairExistsError."""
    _zentra.rename(encoded(name_of(name)), encoded(name_of(new_name)))
