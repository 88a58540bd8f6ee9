"""The summary of a run as one HTML page, with its plots in it."""

from __future__ import annotations

import base64
import html
import io
import os
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    import pandas as pd

_COLOURS = {"sound": "#4c9f70", "done": "#4c9f70", "damaged": "#e0a030", "needs-salvage": "#c0392b",
            "in-use": "#5b7db1", "unfinished": "#7f7f7f"}
_MOST_FOLDERS = 20  # in the plot
_MOST_ROWS = 1000  # of pairs that need work

_STYLE = """body { font-family: sans-serif; margin: 2em; max-width: 70em; }
table { border-collapse: collapse; } td, th { padding: .2em .8em; text-align: left; vertical-align: top; }
th { border-bottom: 1px solid; } tr:nth-child(even) { background: #f2f2f2; } .n { text-align: right; }
img { max-width: 100%; }"""


def shown(name: str) -> str:
    """A file's name for people: what is no printable text stands as an escape."""
    text = os.fsencode(name).decode("utf-8", "backslashreplace")
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode("ascii") for c in text)


def page(table: pd.DataFrame, title: str) -> str:
    """The page."""
    counts = table["verdict"].value_counts()
    parts = [f"<!DOCTYPE html>\n<html lang='en'><head><meta charset='utf-8'><title>{_text(title)}</title>"
             f"<style>{_STYLE}</style></head><body><h1>{_text(title)}</h1>",
             f"<p>{len(table)} pairs, {size_text(table['bytes'].sum())}, "
             f"{int(table['findings'].sum())} findings.</p>",
             _rows(["verdict", "pairs"], [[v, int(n)] for v, n in counts.items()])]
    if len(table):
        for heading, draw in (("Verdicts by folder", _by_folder), ("Sizes", _sizes), ("Times", _times)):
            parts.append(f"<h2>{heading}</h2>{_plot(table, draw, heading)}")
    bad = table[table["status"] > 0].sort_values("status", ascending=False, kind="stable")
    if len(bad):
        parts.append(f"<h2>Not sound: {len(bad)}</h2>")
        parts.append(_rows(["pair", "verdict", "findings", "codes", "bytes", "what"],
                           [[shown(r.pair), r.verdict, int(r.findings), r.codes, r.bytes, r.message]
                            for r in bad.head(_MOST_ROWS).itertuples()]))
        if len(bad) > _MOST_ROWS:
            parts.append(f"<p>... and {len(bad) - _MOST_ROWS} more.</p>")
    return "".join(parts) + "</body></html>\n"


def _text(value: Any) -> str:
    return html.escape(shown(str(value)))


def _rows(names: list[str], rows: list[list[Any]]) -> str:
    def cell(value: Any) -> str:
        if isinstance(value, int):
            return f"<td class='n'>{value}</td>"
        return f"<td>{_text(value)}</td>"

    head = "".join(f"<th>{name}</th>" for name in names)
    body = "".join(f"<tr>{''.join(map(cell, row))}</tr>" for row in rows)
    return f"<table><tr>{head}</tr>{body}</table>"


def size_text(size: float) -> str:
    """Bytes for people."""
    for unit in ("bytes", "KiB", "MiB", "GiB"):
        if size < 1024:
            return f"{size:.0f} {unit}" if unit == "bytes" else f"{size:.1f} {unit}"
        size /= 1024
    return f"{size:.1f} TiB"


def _plot(table: pd.DataFrame, draw: Callable[[Any, pd.DataFrame], None], name: str) -> str:
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError:
        raise ImportError("the summary needs the package matplotlib (python3-matplotlib)") from None
    figure = Figure(figsize=(9, 4), layout="constrained")
    FigureCanvasAgg(figure)
    draw(figure.subplots(), table)
    made = io.BytesIO()
    figure.savefig(made, format="png", dpi=100)
    data = base64.b64encode(made.getvalue()).decode("ascii")
    return f"<img alt='{_text(name)}' src='data:image/png;base64,{data}'>"


def _by_folder(axes: Any, table: pd.DataFrame) -> None:
    folders = table["pair"].map(lambda name: shown(os.path.dirname(name) or "."))
    counts = table.groupby([folders, "verdict"]).size().unstack(fill_value=0)
    bad = counts.drop(columns=[c for c in ("sound", "done") if c in counts]).sum(axis=1)
    order = bad.to_frame("bad").assign(all=counts.sum(axis=1)).sort_values(["bad", "all"],
                                                                           ascending=False)
    left_out = max(0, len(counts) - _MOST_FOLDERS)
    counts = counts.loc[order.index[:_MOST_FOLDERS]]
    left = 0
    names = [name[-40:].replace("$", r"\$") for name in counts.index]
    for verdict in [v for v in _COLOURS if v in counts]:
        axes.barh(range(len(counts)), counts[verdict], left=left, label=verdict,
                  color=_COLOURS[verdict])
        left = left + counts[verdict].to_numpy()
    axes.set_yticks(range(len(counts)), names)
    axes.invert_yaxis()
    axes.set_xlabel("pairs" + (f" ({left_out} folders with fewer faults left out)" if left_out else ""))
    axes.legend()


def _logarithmic(axes: Any, values: Any, label: str) -> None:
    import numpy as np

    values = np.asarray(values, dtype="f8")
    values = values[values > 0]
    if len(values):
        least, most = np.log10(values.min()), np.log10(values.max())
        axes.hist(values, bins=np.logspace(least - 0.1, most + 0.1, 30), color="#5b7db1")
        axes.set_xscale("log")
    axes.set_xlabel(label)
    axes.set_ylabel("pairs")


def _sizes(axes: Any, table: pd.DataFrame) -> None:
    _logarithmic(axes, table["bytes"].dropna(), "bytes of both files")


def _times(axes: Any, table: pd.DataFrame) -> None:
    known = table.dropna(subset=["bytes"])
    known = known[(known["bytes"] > 0) & (known["seconds"] > 0)]
    for verdict, part in known.groupby("verdict"):
        axes.scatter(part["bytes"].astype("f8"), part["seconds"], s=8, label=verdict,
                     color=_COLOURS.get(verdict, "black"))
    if len(known):
        axes.set_xscale("log")
        axes.set_yscale("log")
        axes.legend()
    axes.set_xlabel("bytes of both files")
    axes.set_ylabel("seconds")
