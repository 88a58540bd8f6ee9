#!/usr/bin/env python3
"""How a cluster of two worker processes does beside `zentra check -j 2`, on the same pairs.

    bench/python/fleet.py BUILD [--pairs N] [--rounds N] [--records N] [--limit RATIO]

BUILD is a build folder with the package (KESTRO_PYTHON). In each round `zentra check --json -j 1`,
`-j 2` and zentra.fleet.check look at the same pairs, warm, in tasks of 20 pairs; the start of the
cluster is not counted. Printed is, for each round and over all rounds (medians), how many times
as fast as -j 1 the others are, and the part of the gain of -j 2 that the cluster has. Verdicts,
statuses and findings must be equal pair by pair; every fiftieth pair is damaged. With --limit the
status is 1 when the part is lower.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def make_pairs(folder, count, records):
    import zentra

    first = os.path.join(folder, "first")
    with zentra.create(first, "id long 0\nname char next 24\namount double next",
                       ["id", zentra.Key("name", duplicates=True)]) as file:
        for number in range(records):
            file.insert({"id": number, "name": f"name {number % 97}", "amount": number / 4})
    for number in range(count):
        below = os.path.join(folder, f"folder{number % 16:02d}")
        os.makedirs(below, exist_ok=True)
        for suffix in (".dat", ".idx"):
            shutil.copyfile(first + suffix, os.path.join(below, f"pair{number:05d}{suffix}"))
        if number % 50 == 7:
            os.truncate(os.path.join(below, f"pair{number:05d}.dat"), 100)
    for suffix in (".dat", ".idx"):
        os.remove(first + suffix)


def told(text):
    """Of each pair by its name: verdict, status, findings."""
    names, rows = {}, {}
    for line in text.splitlines():
        entry = json.loads(line)
        if entry["type"] == "pair":
            names[entry["pair"]] = bytes.fromhex(entry["name"]["hex"])
        elif entry["type"] == "pair-end":
            rows[names[entry["pair"]]] = entry["verdict"], entry["status"], entry.get("findings", 0)
    return rows


def check_alone(program, pairs, jobs):
    began = time.perf_counter()
    ran = subprocess.run([program, "check", "--json", "-j", str(jobs), *pairs], capture_output=True)
    return time.perf_counter() - began, told(ran.stdout)


def check_on(client, pattern, program):
    import zentra.fleet

    began = time.perf_counter()
    table = zentra.fleet.check(pattern, client, program=program)
    taken = time.perf_counter() - began
    return taken, {os.fsencode(row.pair): (row.verdict, row.status, row.findings)
                   for row in table.itertuples()}


def measure(options, folder, program):
    import zentra.fleet

    pairs = sorted(os.path.join(root, name[:-4]) for root, _, names in os.walk(folder)
                   for name in names if name.endswith(".dat"))
    pattern = os.path.join(folder, "**/*.dat")
    times = {"-j 1": [], "-j 2": [], "cluster": []}
    with zentra.fleet.local_cluster(2) as client:
        check_on(client, pattern, program)  # warm, and what is imported once is
        for _ in range(options.rounds):
            one, wanted = check_alone(program, pairs, 1)
            two, same = check_alone(program, pairs, 2)
            cluster, got = check_on(client, pattern, program)
            if not wanted == same == got or len(got) != options.pairs:
                sys.exit("the verdicts are not equal")
            for name, taken in zip(times, (one, two, cluster)):
                times[name].append(taken)
            print(f"-j 1 {one:.3f} s, -j 2 {two:.3f} s, cluster {cluster:.3f} s: "
                  f"{one / two:.2f} and {one / cluster:.2f} times as fast, {two / cluster:.2f} of it",
                  flush=True)
    return {name: statistics.median(taken) for name, taken in times.items()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build")
    parser.add_argument("--pairs", type=int, default=2000)
    parser.add_argument("--records", type=int, default=200)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--limit", type=float)
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    package = os.path.join(build, "python")
    sys.path.insert(0, package)
    os.environ["PYTHONPATH"] = package  # for the workers
    with tempfile.TemporaryDirectory(prefix="zentra-fleet-") as folder:
        make_pairs(folder, options.pairs, options.records)
        found = measure(options, folder, os.path.join(build, "zentra"))
    share = found["-j 2"] / found["cluster"]
    print(f"median of {options.rounds} rounds over {options.pairs} pairs: {share:.2f} of the gain of -j 2")
    return 1 if options.limit is not None and share < options.limit else 0


if __name__ == "__main__":
    sys.exit(main())
