"""Zentra indexed files: records, and arrays of them.

    with zentra.open("stock", mode="r+") as stock:
        stock["A001"] = {"name": "bolt", "amount": 12}

open() and create() give a File, whose records are read and written by keys; log() begins
transactions. read_numpy(), read_pandas() and write_pandas() work on whole pairs. Every exception is
an Error of zentra.errors. The README of the package shows all of it.
"""

from typing import Any

from . import errors
from ._zentra import version as library_version
from .errors import *  # noqa: F403
from .errors import __all__ as _errors
from .files import create, erase, open, rename  # noqa: A004
from .keys import Key
from .layouts import Field, Layout
from .logs import Log as log  # noqa: N813
from .ranges import Range
from .records import File

# What needs pandas is imported when it is asked for, arrays too: some only want records.
_LATER = {"iter_numpy": "arrays", "read_numpy": "arrays", "iter_pandas": "frames",
          "layout_of": "storing", "read_dask": "partitions", "read_pandas": "frames",
          "write_pandas": "storing"}

__all__ = ["Field", "File", "Key", "Layout", "Range", "create", "erase", "errors", "library_version",
           "log", "open", "rename", *_errors, *_LATER]


def __getattr__(name: str) -> Any:
    if name not in _LATER:
        raise AttributeError(f"module 'zentra' has no attribute {name!r}")
    from importlib import import_module

    return getattr(import_module(f".{_LATER[name]}", __name__), name)
