"""How fast a whole pair becomes an array, beside numpy.fromfile of its data file.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python/read_numpy.py [RECORDS [FOLDER]]

A pair of 1,000,000 records of 128 bytes is made in a temporary folder: nine fields with texts, a date,
a decimal, a boolean and numbers that may be null. All is in memory. Each is measured in turn, fifteen
times; the least wall time counts, and the least processor time of all threads, for a machine that has
other work, too.
"""
import os
import sys
import tempfile
import time

import numpy as np
import pandas as pd

import zentra

LAYOUT = """
id      long    0
name    char    next  24
city    char    next  20
born    char    next  8   date YYYYMMDD null
amount  long    next      decimal 2
count   int     next      null
active  char    next  1   boolean Y N
rate    double  next      null
rest    char    next  57
"""


def make(name, records):
    random = np.random.default_rng(1)
    days = pd.to_timedelta(random.integers(0, 9000, records), "D")
    zentra.write_pandas(pd.DataFrame({
        "id": np.arange(records), "name": [f"name {n % 9973}" for n in range(records)],
        "city": "Town", "born": pd.Timestamp("2000-01-01") + days,
        "amount": random.integers(0, 10 ** 6, records) / 100,
        "count": random.integers(0, 99, records), "active": random.random(records) < 0.5,
        "rate": random.random(records), "rest": "x" * 30}), name, LAYOUT, "id", save_layout=True)


def main(records=1_000_000, folder=None):
    with tempfile.TemporaryDirectory(dir=folder) as here:
        name = os.path.join(here, "pair")
        make(name, records)
        size = os.path.getsize(name + ".dat")
        ways = {
            "numpy.fromfile": lambda: np.fromfile(name + ".dat", dtype="u1"),
            "read_numpy": lambda: zentra.read_numpy(name),
            "read_numpy, raw": lambda: zentra.read_numpy(name, raw=True),
            "read_numpy, two fields": lambda: zentra.read_numpy(name, fields=["id", "amount"]),
            "read_pandas": lambda: zentra.read_pandas(name),
        }
        best = {}
        for _ in range(15):
            for way, work in ways.items():
                began, used = time.perf_counter(), time.process_time()
                work()
                took = time.perf_counter() - began, time.process_time() - used
                best[way] = tuple(map(min, best.get(way, took), took))
        print("| | ms | CPU ms | MB/s | of fromfile | by CPU |\n|---|---|---|---|---|---|")
        bare, bare_used = best["numpy.fromfile"]
        for way, (wall, used) in best.items():
            print(f"| {way} | {wall * 1e3:.0f} | {used * 1e3:.0f} | {size / wall / 1e6:.0f} "
                  f"| {bare / wall:.2f} | {bare_used / used:.2f} |")


main(*(int(word) if word.isdigit() else word for word in sys.argv[1:]))
