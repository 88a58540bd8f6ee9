#!/usr/bin/env python3
"""Whether a group-by on the workers is what pandas says, and how much memory a worker takes for it.

    bench/python/partitions.py BUILD [--records N] [--partitions N]

BUILD is a build folder with the package (KESTRO_PYTHON). A pair is made in a temporary folder and
read by zentra.read_dask() on a cluster of two worker processes, once with hold=True and once without.
The peak of each worker's anonymous memory is looked for every few milliseconds. It may be what the
worker has after its imports, two partitions (as pandas counts them) and 64 MiB; the status is 1 when
it is more, or the result differs.
"""

import argparse
import os
import sys
import tempfile
import threading
import time

ROOM = 64 << 20
LAYOUT = """
id      long    0
region  char    next  6
day     char    next  8   date YYYYMMDD null
amount  long    next      decimal 2
pieces  int     next
"""


def make(name, records):
    import numpy as np
    import pandas as pd

    import zentra

    random = np.random.default_rng(1)
    regions = np.array(["north", "south", "west", "east", "abroad"], dtype=object)
    zentra.write_pandas(pd.DataFrame({
        "id": np.arange(records), "region": regions[random.integers(0, 5, records)],
        "day": pd.Timestamp("2020-01-01") + pd.to_timedelta(random.integers(0, 900, records), "D"),
        "amount": random.integers(0, 10 ** 5, records) / 4, "pieces": random.integers(0, 99, records)}),
        name, LAYOUT, "id", save_layout=True)


def group(frame):
    return frame.groupby([frame["region"], frame["day"].dt.month])[["amount", "pieces"]].sum()


def load_all():
    """In a worker: its process, when it has imported what the work takes."""
    import gc

    import dask.dataframe  # noqa: F401

    import zentra.partitions  # noqa: F401

    gc.collect()
    return os.getpid()


def anonymous(process):
    with open(f"/proc/{process}/status", encoding="ascii") as file:
        for line in file:
            if line.startswith("RssAnon:"):
                return int(line.split()[1]) << 10
    return 0


class Peaks:
    """The most that each process has while the block runs."""

    def __init__(self, processes):
        self.most = dict.fromkeys(processes, 0)
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self.look)

    def look(self):
        while not self.stop.wait(0.004):
            for process in self.most:
                self.most[process] = max(self.most[process], anonymous(process))

    def __enter__(self):
        self.thread.start()
        return self.most

    def __exit__(self, *_):
        self.stop.set()
        self.thread.join()


def measure(name, options, hold):
    """Seconds, and by how much the memory of a worker was more than after its imports."""
    import zentra
    import zentra.fleet

    with zentra.fleet.local_cluster(2) as client:
        before = {process: anonymous(process) for process in client.run(load_all).values()}
        frame = zentra.read_dask(name, partitions=options.partitions, hold=hold)
        began = time.perf_counter()
        with Peaks(before) as most:
            result = client.compute(group(frame)).result()
        taken = time.perf_counter() - began
    return result, taken, max(most[process] - before[process] for process in before)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build")
    parser.add_argument("--records", type=int, default=5_000_000)
    parser.add_argument("--partitions", type=int, default=20)
    options = parser.parse_args()
    package = os.path.join(os.path.abspath(options.build), "python")
    sys.path.insert(0, package)
    os.environ["PYTHONPATH"] = package  # for the workers
    import pandas as pd

    import zentra

    failed = False
    with tempfile.TemporaryDirectory(prefix="zentra-partitions-", dir="/var/tmp") as folder:
        name = os.path.join(folder, "pair")
        make(name, options.records)
        part = zentra.read_pandas(name, last=-(-options.records // options.partitions))
        limit = 2 * int(part.memory_usage(deep=True).sum()) + ROOM
        began = time.perf_counter()
        wanted = group(zentra.read_pandas(name))
        print(f"pandas: {time.perf_counter() - began:.1f} s")
        for hold in (True, False):
            result, taken, most = measure(name, options, hold)
            pd.testing.assert_frame_equal(result.sort_index(), wanted, check_index_type=False)
            print(f"hold={hold}: {taken:.1f} s, peak {most >> 20} MiB above the imports; two partitions "
                  f"and 64 MiB are {limit >> 20} MiB", flush=True)
            failed = failed or most > limit
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
