"""What the tests share. They run from the build folder's package: PYTHONPATH leads to it."""
import datetime
import os
import tempfile
from decimal import Decimal

import pytest
from hypothesis.configuration import set_hypothesis_home_dir

import zentra

set_hypothesis_home_dir(os.path.join(tempfile.gettempdir(), "zentra-hypothesis"))  # not the sources

LAYOUT = """
id      char   0     6
name    char   next  20
since   char   next  8   date YYYYMMDD null
credit  long   next      decimal 2
active  char   next  1   boolean Y N
rate    double next      null
group   int    next
"""
KEYS = ["id", zentra.Key("name", duplicates=True),
        zentra.Key("group", "id", descending=["group"]), zentra.Key("since", duplicates=True)]


def record(n):
    return {"id": f"{n:06d}", "name": f"Müller {n % 7}", "credit": Decimal(n) / 4,
            "since": datetime.date(2020 + n % 3, 1 + n % 12, 1 + n % 28) if n % 5 else None,
            "active": n % 2 == 0, "rate": n / 3 if n % 4 else None, "group": n % 3 - 1}


@pytest.fixture
def here(tmp_path, monkeypatch):
    """An empty folder that the test is in."""
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.fixture
def pair(here):
    """A pair of 300 records; numbers 100 to 109 are deleted, and their keys "000100" to "000109"."""
    with zentra.create("pair", LAYOUT, KEYS, save_layout=True) as file:
        for n in range(1, 301):
            file.insert(record(n))
        for n in range(100, 110):
            del file[f"{n:06d}"]
    return "pair"


def present():
    return [record(n) for n in range(1, 301) if not 100 <= n <= 109]


@pytest.fixture(scope="session")
def client():
    """A cluster of two worker processes."""
    from zentra import fleet

    with fleet.local_cluster(2) as made:
        yield made
