"""The command line: `python3 -m zentra.fleet check PATTERN...` and `dump`."""

from __future__ import annotations

import argparse
import contextlib
import json
import os
import sys
import warnings
from collections.abc import Iterator
from typing import Any, NoReturn, Optional

import zentra.fleet as fleet
from zentra.errors import ArgumentError, Error

USAGE = 16  # the exit status of a wrong command line
UNFINISHED = 4
INTERRUPTED = 130
PATIENCE = 10.0  # seconds that a scheduler may take to answer

_EPILOG = """PATTERN is a name of a pair or a pattern as the shell has them, in quotes, with ** for any
folders below folders: '/data/**/*.dat'. Without --scheduler processes of this machine do the work.
The exit status is the greatest of all pairs: 0 sound, 1 damaged, 2 needs salvage (of a dump: records
are left out), 3 in use, 4 unfinished; 16 for a wrong command line."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.print_usage(sys.stderr)
        self.exit(USAGE, f"{self.prog}: {message}\n")


def _positive(text: str) -> int:
    number = int(text)
    if number < 1:
        raise ValueError
    return number


def _seconds(text: str) -> float:
    number = float(text)
    if not 0 <= number <= 1e6:
        raise ValueError
    return number


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="python3 -m zentra.fleet", epilog=_EPILOG,
                     description="Looks at many pairs with the workers of a Dask cluster.")
    commands = parser.add_subparsers(dest="command", required=True, metavar="check|dump")
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("patterns", nargs="+", metavar="PATTERN")
    common.add_argument("--scheduler", metavar="ADDRESS", help="of a cluster that runs, as tcp://host:8786")
    common.add_argument("--workers", type=_positive, metavar="N",
                        help="processes on this machine, without --scheduler; one for each processor")
    common.add_argument("--wait", type=_seconds, default=10.0, metavar="SECONDS",
                        help="for the lock of a pair (10)")
    common.add_argument("--program", default="zentra", metavar="FILE", help="zentra, for the workers")
    common.add_argument("--json", action="store_true", help="report one JSON object a line")
    check = commands.add_parser("check", parents=[common], epilog=_EPILOG,
                                help="find every fault, as zentra check does")
    check.add_argument("--quick", action="store_true", help="look only at what kestro looks at")
    check.add_argument("--batch", type=_positive, default=fleet.BATCH, metavar="N",
                       help=f"pairs in a task ({fleet.BATCH})")
    check.add_argument("-o", dest="output", metavar="FILE", help="write an HTML page with plots")
    dump = commands.add_parser("dump", parents=[common], epilog=_EPILOG,
                               help="write records as text, as zentra dump does")
    dump.add_argument("-o", dest="output", metavar="FOLDER", required=True, help="where the files go")
    dump.add_argument("--format", choices=["jsonl", "csv", "raw"], default="jsonl")
    dump.add_argument("--layout", metavar="FILE", help="the layout of all of them")
    return parser


@contextlib.contextmanager
def _client(options: argparse.Namespace) -> Iterator[Any]:
    if options.scheduler is None:
        with fleet.local_cluster(options.workers) as client:
            yield client
        return
    from distributed import Client

    with Client(options.scheduler, timeout=PATIENCE) as client:
        yield client


def _progress(done: int, found: int) -> None:
    print(f"\r{done} of {found} pairs ", end="", file=sys.stderr, flush=True)


def _tell(table: Any, as_json: bool) -> None:
    from .summary import shown, size_text

    if as_json:
        _tell_json(table)
        return
    for row in table[table["status"] > 0].itertuples():
        print(f"{shown(row.pair)}: {shown(row.message)}")
        if row.codes:
            print(f"  {row.codes}")
    counts = table["verdict"].value_counts()
    told = ", ".join(f"{count} {verdict}" for verdict, count in counts.items()) or "none"
    print(f"{len(table)} pairs of {size_text(table['bytes'].sum())}: {told}")


def _tell_json(table: Any) -> None:
    print(json.dumps({"schema": 1, "type": "begin", "pairs": len(table)}))
    for row in table.astype(object).where(table.notna(), None).to_dict("records"):
        name = os.fsencode(row.pop("pair"))
        told = {"type": "pair-end", "name": {"hex": name.hex()}}
        with contextlib.suppress(UnicodeDecodeError):
            told["name"]["text"] = name.decode("utf-8")
        told.update((key, value.item() if hasattr(value, "item") else value) for key, value in row.items())
        print(json.dumps(told))
    counts = {verdict: int(count) for verdict, count in table["verdict"].value_counts().items()}
    print(json.dumps({"type": "end", **counts, "findings": int(table["findings"].sum()),
                      "status": fleet.worst(table)}))


def _work(options: argparse.Namespace) -> int:
    progress = _progress if sys.stderr.isatty() else None
    with _client(options) as client:
        if options.command == "check":
            table = fleet.check(options.patterns, client, quick=options.quick, wait=options.wait,
                                batch=options.batch, program=options.program, progress=progress)
        else:
            table = fleet.dump(options.patterns, options.output, client, form=options.format,
                               layout=options.layout, wait=options.wait, program=options.program,
                               progress=progress)
    if progress is not None:
        print(file=sys.stderr)
    _tell(table, options.json)
    if options.command == "check" and options.output is not None:
        fleet.write_summary(table, options.output)
    return fleet.worst(table)


def main(arguments: Optional[list[str]] = None) -> int:
    options = _parser().parse_args(arguments)
    warnings.simplefilter("ignore")
    try:
        status = _work(options)
        sys.stdout.flush()
        return status
    except ArgumentError as error:
        print(f"zentra.fleet: {error}", file=sys.stderr)
        return USAGE
    except KeyboardInterrupt:
        return INTERRUPTED
    except (Error, OSError, ImportError) as error:
        print(f"zentra.fleet: {error}", file=sys.stderr)
        return UNFINISHED


if __name__ == "__main__":
    sys.exit(main())
