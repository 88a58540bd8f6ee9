"""Layouts: which fields the records of a pair have. zentra-layout(5) tells how their text is written."""

from __future__ import annotations

import os
from collections.abc import Iterator
from typing import Union

from . import _zentra
from ._zentra import Field
from .errors import LayoutError

__all__ = ["Field", "Layout", "PathLike", "as_layout", "name_of"]

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

_GREATEST_TEXT = 4 << 20


def name_of(pair: PathLike) -> str:
    """The base name of a pair that may be named by either of its files."""
    name = os.fsdecode(pair)
    return name[:-4] if name.endswith((".dat", ".idx")) else name


class Layout:
    """The fields of a pair's records, in their order.

    >>> layout = Layout("id char 0 8\\nborn char next 8 date YYYYMMDD null")
    >>> [field.name for field in layout]
    ['id', 'born']

    Raises LayoutError, whose `problems` say line by line what is wrong.
    """

    __slots__ = ("_by_name", "fields", "text")

    def __init__(self, text: str, *, file: str = "layout") -> None:
        fields, problems = _zentra.parse_layout(_encoded(text, file), file)
        if problems:
            raise LayoutError("\n".join(problems), problems)
        self.fields: tuple[Field, ...] = tuple(fields)
        self.text = text
        self._by_name = {field.name: field for field in self.fields}

    @classmethod
    def read(cls, path: PathLike) -> Layout:
        """The layout that a text file holds. Raises OSError and LayoutError."""
        name = os.fsdecode(path)
        with open(path, "rb") as file:
            text = file.read(_GREATEST_TEXT + 1)
        try:
            return cls(text.decode("utf-8"), file=name)
        except UnicodeDecodeError as error:
            line = text.count(b"\n", 0, error.start) + 1
            problem = f"{name}:{line}: these bytes are no UTF-8"
            raise LayoutError(problem, [problem]) from None

    @classmethod
    def of(cls, pair: PathLike) -> Layout:
        """The layout of a pair: the text beside it, NAME.layout; else a draft, of which the comments
        tell what is a guess. Raises Error where the pair cannot be read."""
        beside = name_of(pair) + ".layout"
        if os.path.exists(beside):
            return cls.read(beside)
        return cls.draft(pair)

    @classmethod
    def draft(cls, pair: PathLike) -> Layout:
        """Fields guessed from the keys of a pair and from the bytes of a thousand of its records."""
        from .pairs import opened

        with opened(name_of(pair), _zentra.ISINPUT | _zentra.ISMANULOCK) as pair_open:
            return cls._drafted(pair_open)

    @classmethod
    def _drafted(cls, pair_open: _zentra.Open, most: int = 1000) -> Layout:
        last = pair_open.read(0, _zentra.RD_LAST, b"", 0)
        samples = []
        number = 1
        step = max(1, last[0] // most) if last else 1
        while last and number <= last[0]:
            found = pair_open.read(0, _zentra.RD_GTEQ, b"", number)
            if found is None:
                break
            samples.append(found[1])
            number = found[0] + step
        return cls(_zentra.layout_text(_zentra.draft(pair_open, samples)))

    def save(self, pair: PathLike, *, replace: bool = False) -> None:
        """Writes the text beside a pair, where zentra looks for it. Raises FileExistsError."""
        with open(name_of(pair) + ".layout", "w" if replace else "x", encoding="utf-8") as file:
            file.write(self.text if self.text.endswith("\n") else self.text + "\n")

    @property
    def tail(self) -> Field | None:
        """The field of all that lies behind the fixed part of a record."""
        return self.fields[-1] if self.fields[-1].is_tail else None

    @property
    def end(self) -> int:
        """Bytes of the fixed part, as far as fields reach."""
        return max((f.offset + f.length for f in self.fields if not f.is_tail), default=0)

    def check(self, length: int, has_tail: bool, pair: str = "") -> None:
        """Raises LayoutError unless records of this length, with or without a tail, have the fields."""
        problems = _zentra.misfits(list(self.fields), length, has_tail, "layout")
        if problems:
            whose = f'the layout does not fit "{pair}": ' if pair else ""
            raise LayoutError(whose + "; ".join(problems), problems, pair=pair)

    def __getitem__(self, name: str) -> Field:
        return self._by_name[name]

    def __contains__(self, name: object) -> bool:
        return name in self._by_name

    def __iter__(self) -> Iterator[Field]:
        return iter(self.fields)

    def __len__(self) -> int:
        return len(self.fields)

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Layout) and self._canonical() == other._canonical()

    def __hash__(self) -> int:
        return hash(self._canonical())

    def _canonical(self) -> str:
        return _zentra.layout_text(list(self.fields))

    def __repr__(self) -> str:
        return f"Layout({self._canonical()!r})"

    def __str__(self) -> str:
        return self.text

    def __reduce__(self):
        return Layout, (self.text,)


def _encoded(text: str, file: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"a layout is a text, not {type(text).__name__}")
    try:
        return text.encode("utf-8")
    except UnicodeEncodeError as error:
        problem = f"{file}: character {error.start} is half of a character"
        raise LayoutError(problem, [problem]) from None


def as_layout(layout: Layout | str | PathLike | None, pair: str) -> Layout | None:
    """What callers pass for a layout: one, its text (with a line's end or blanks), or its file."""
    if layout is None or isinstance(layout, Layout):
        return layout
    if isinstance(layout, str) and any(c in layout for c in " \n"):
        if "\n" in layout or not os.path.exists(layout):
            return Layout(layout)
    return Layout.read(layout)
