"""What the package raises. All of it is an Error."""

from __future__ import annotations

import errno
import os

__all__ = [
    "AccessError", "ArgumentError", "AuditError", "ChangedError", "ClosedError", "DamagedError", "DuplicateKeyError",
    "Error", "FieldError", "FieldTypeError", "FileSystemError", "ForkError", "FormatError",
    "InUseError", "IndexKeyError", "LayoutError", "LocaleError", "LogError", "MemoryFullError",
    "NoCurrentRecordError", "NoPairError", "NoPrimaryKeyError", "NoRecordError", "NotExclusiveError",
    "PairExistsError", "PairNameError", "RecordLengthError", "RecordLockedError", "TooManyError",
    "TransactionError",
]


class Error(Exception):
    """A call that failed.

    code      the library's code from 100 on, or the system's errno below; 0 where the package itself
              refuses something
    sentence  why, with the call and the pair where one failed
    status    the four status characters of the call, such as "2222"; empty without a call
    place     operation and file of a failed system call, as isam(3) tells of iserrio; or 0
    pair      the pair's name, or ""
    """

    def __init__(self, sentence: str, *, code: int = 0, status: str = "", place: int = 0,
                 pair: str = "") -> None:
        super().__init__(sentence)
        self.sentence = sentence
        self.code = code
        self.status = status
        self.place = place
        self.pair = pair

    def __str__(self) -> str:
        return self.sentence

    def __reduce__(self):
        return _again, (type(self), self.args, self.__dict__.copy())


def _again(kind, arguments, values):
    error = kind.__new__(kind, *arguments)
    error.args = arguments
    error.__dict__.update(values)
    return error


class DuplicateKeyError(Error, ValueError):
    """Another record has this key in an index that allows no duplicates."""


class NoRecordError(Error, KeyError):
    """No record has this key or number."""


class NoCurrentRecordError(Error):
    """No record is current."""


class RecordLockedError(Error):
    """Another process has the record or the file locked."""


class InUseError(Error):
    """Another open is in the way."""


class DamagedError(Error):
    """The pair is damaged: close it everywhere and run `zentra check` on it."""


class FormatError(Error):
    """The pair is of another format."""


class ClosedError(Error, ValueError):
    """It has been closed, or is not open for this."""


class ChangedError(Error):
    """The pair has been changed while several reads of it were to see one moment."""


class ForkError(Error):
    """What the parent process has open is not for a child made by fork."""


class ArgumentError(Error, ValueError):
    """A number, a mode or a word that a call does not take."""


class IndexKeyError(Error, ValueError):
    """No such index, or none of which there can be."""


class PairNameError(Error, ValueError):
    """A pair cannot have this name."""


class RecordLengthError(Error, ValueError):
    """A record is too long or too short."""


class NoPrimaryKeyError(Error):
    """The pair has no primary key."""


class NotExclusiveError(Error):
    """The call needs the pair opened with exclusive=True."""


class TooManyError(Error):
    """The process has as much open, or locked, as it may."""


class MemoryFullError(Error, MemoryError):
    """Memory is used up."""


class LocaleError(Error):
    """The locale is not there, or the pair is ordered by another one."""


class LogError(Error):
    """The log cannot be opened, read or written."""


class TransactionError(Error):
    """No log is open, no transaction has begun, or one is open already."""


class AuditError(Error):
    """The pair's audit trail is in the way."""


class FileSystemError(Error, OSError):
    """The operating system refused something; errno tells what."""


class NoPairError(FileSystemError, FileNotFoundError):
    """There is no such pair."""


class PairExistsError(FileSystemError, FileExistsError):
    """There is such a pair already."""


class AccessError(FileSystemError, PermissionError):
    """The files of the pair may not be read, or not be written."""


class LayoutError(Error, ValueError):
    """A layout that is none, or does not fit the pair; `problems` has a line for each reason."""

    def __init__(self, sentence: str, problems: list[str] | None = None, *, pair: str = "") -> None:
        super().__init__(sentence, pair=pair)
        self.problems = problems or []


class FieldError(Error, ValueError):
    """A value that a field cannot have, or bytes in it that mean nothing.

    record  the record's number, its key, or its place among those given, as far as there is one
    field   the field's name
    """

    def __init__(self, why: str, *, pair: str = "", record: object = None, field: str = "") -> None:
        self.why = why
        where = [repr(pair)] if pair else []
        if record is not None:
            where.append(f"record {record!r}" if not isinstance(record, int) else f"record {record}")
        if field:
            where.append(f"field {field}")
        super().__init__(": ".join([", ".join(where), why] if where else [why]), pair=pair)
        self.record = record
        self.field = field


class FieldTypeError(FieldError, TypeError):
    """A value of a type that the field does not take."""


_BY_CODE: dict[int, type[Error]] = {
    errno.ENOENT: NoPairError, errno.EEXIST: PairExistsError, errno.EACCES: AccessError,
    errno.EPERM: AccessError, 100: DuplicateKeyError, 101: ClosedError, 102: ArgumentError,
    103: IndexKeyError, 104: TooManyError, 105: DamagedError, 106: NotExclusiveError,
    107: RecordLockedError, 108: IndexKeyError, 109: IndexKeyError, 111: NoRecordError,
    112: NoCurrentRecordError, 113: InUseError, 114: PairNameError, 116: MemoryFullError,
    117: LocaleError, 118: LogError, 119: LogError, 120: LogError, 121: LogError,
    122: TransactionError, 124: TransactionError, 127: NoPrimaryKeyError, 132: RecordLengthError,
    133: AuditError, 134: TooManyError, 159: LocaleError, 171: FormatError, 21502: LogError,
}


def of_call(code: int, sentence: bytes, place: int, status: bytes, pair: bytes) -> Error:
    """The exception for a failed call; the compiled part asks for it."""
    kind = _BY_CODE.get(code, FileSystemError if 0 < code < 100 else Error)
    error = kind(os.fsdecode(sentence), code=code, status=status.decode("latin-1"), place=place,
                 pair=os.fsdecode(pair))
    if isinstance(error, OSError):
        error.errno = code
        error.strerror = os.strerror(code)
        error.filename = os.fsdecode(pair)
    return error


def inherited(pair: bytes) -> ForkError:
    """The exception for an open of the parent process; the compiled part asks for it."""
    name = os.fsdecode(pair)
    return ForkError(f'this open of "{name}" is that of the parent process; open the pair anew in '
                     "the child", code=101, pair=name)


def bad_value(pair: bytes, record: int, field: str, value: bytes) -> FieldError:
    """The exception for a field without meaning in a column; the compiled part asks for it."""
    return FieldError(f"{value!r} has no meaning there", pair=os.fsdecode(pair), record=record,
                      field=field)
