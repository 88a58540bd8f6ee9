"""The transaction log of the process, and transactions."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator
from typing import TYPE_CHECKING, ClassVar, Optional

from . import _zentra
from .errors import ForkError, LogError, TransactionError
from .layouts import PathLike
from .pairs import close_at_exit, encoded

if TYPE_CHECKING:
    from .records import File


class Log:
    """The log that all changes of the process go to, until the end of the block.

    >>> with zentra.log("changes.log") as log:            # doctest: +SKIP
    ...     with zentra.open("accounts", mode="r+") as accounts, log.transaction():
    ...         accounts.update({"id": "1001", "amount": Decimal("70.00")})

    The file must exist; an empty one becomes a log. A process has one log at a time. Pairs that are
    to take part in transactions are opened after it.
    """

    _current: ClassVar[Optional[Log]] = None

    def __init__(self, path: PathLike) -> None:
        if Log.is_open():
            raise LogError("a log is open already", code=120)
        _zentra.open_log(encoded(path))
        self.path = path
        self._transaction_of: Optional[int] = None
        Log._current = self
        close_at_exit(self)

    @staticmethod
    def is_open() -> bool:
        """Whether the process has a log open by this package."""
        return Log._current is not None

    @staticmethod
    def expect_change(file: File) -> None:
        """Raises TransactionError where a change would escape the transaction unasked."""
        log = Log._current
        if log is not None and log.in_transaction and file.transactions is None:
            raise TransactionError(f'"{file.name}" was opened before the log, so that its changes are '
                                   "no part of the transaction; open it after the log, or with "
                                   "transactions=False", code=124, pair=file.name)

    @property
    def in_transaction(self) -> bool:
        """Whether a transaction of this process has begun."""
        return self._transaction_of == _zentra.generation()

    @contextlib.contextmanager
    def transaction(self) -> Iterator[Log]:
        """What the process changes in the block, in all pairs that take part, stands together or
        not at all: an exception undoes it. Records changed in it stay locked until the end, which
        releases all that the process has locked, in whatever pair, but by Files with mode "r".

        Changes of other threads meanwhile are part of it, too. Raises TransactionError when one
        has begun already, LogError when the commit cannot be written, and then it is undone.
        """
        if Log._current is not self:
            raise TransactionError("the log has been closed", code=122)
        if self.in_transaction:
            raise TransactionError("a transaction has begun already", code=124)
        _zentra.begin()
        here = self._transaction_of = _zentra.generation()
        try:
            yield self
        except BaseException:
            if here == _zentra.generation():
                self._transaction_of = None
                _zentra.roll_back()
            raise
        if here != _zentra.generation():
            raise ForkError("the transaction is that of the parent process", code=101)
        self._transaction_of = None
        try:
            _zentra.commit()
        except LogError:
            _zentra.roll_back()
            raise

    def close(self) -> None:
        """Closes the log; a transaction is undone first. Once more it does nothing."""
        if Log._current is self:
            Log._current = None
            self._transaction_of = None
            _zentra.close_log()

    def __enter__(self) -> Log:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
