"""What a report of `zentra --json` tells of pairs."""

from __future__ import annotations

import json
from collections.abc import Iterable, Iterator
from typing import Any, Optional

_MOST_CODES = 100


def pairs_told(lines: Iterable[bytes]) -> Iterator[tuple[bytes, dict[str, Any], list[str]]]:
    """Each pair that the report comes to the end of: its name, the line of its end, and the codes of
    what was found."""
    name: Optional[bytes] = None
    codes: dict[str, None] = {}
    for line in lines:
        if line.startswith(b'{"type":"detail"'):  # there may be millions
            continue
        if not line.endswith(b"\n"):
            return
        told = json.loads(line)
        kind = told.get("type")
        if kind == "pair":
            name, codes = bytes.fromhex(told["name"]["hex"]), {}
        elif kind == "finding" and len(codes) < _MOST_CODES:
            codes[str(told.get("code"))] = None
        elif kind == "pair-end" and name is not None:
            yield name, told, list(codes)
            name = None
