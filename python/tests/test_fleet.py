"""Many pairs on the workers of a cluster, beside what zentra says of each."""
import json
import os
import shutil
import subprocess
import sys
import time

import pytest
from conftest import LAYOUT, record

import zentra
import zentra.fleet
from zentra.fleet import __main__ as command
from zentra.fleet import children, worker

PROGRAM = os.environ.get("ZENTRA", "")
NOBODY = 65534
pytestmark = pytest.mark.skipif(not PROGRAM, reason="runs where CMake has built zentra")
STRANGE = os.fsdecode(b"stra\xffnge\n <b>$x")


@pytest.fixture
def pairs(here):
    """100 pairs in six folders, some of them damaged, one with a strange name."""
    with zentra.create("first", LAYOUT, "id") as file:
        for n in range(40):
            file.insert(record(n))
    for n in range(100):
        folder = f"all/f{n % 5}" if n else f"all/{STRANGE}"
        os.makedirs(folder, exist_ok=True)
        copy("first", f"{folder}/pair{n}" if n else f"{folder}/{STRANGE}")
    with open("all/f1/pair11.dat", "r+b") as file:
        file.truncate(100)
    with open("all/f2/pair12.dat", "r+b") as file:
        file.write(b"999999")
    with open("all/f3/pair13.idx", "r+b") as file:
        file.write(bytes(100))
    return here


def copy(name, new_name):
    for suffix in (".dat", ".idx"):
        shutil.copyfile(name + suffix, new_name + suffix)


def stumble(what):
    """A program that does something to itself or to its worker when it is to look at pair7."""
    with open("program", "w", encoding="utf-8") as file:
        file.write(f"""#!/bin/bash
expect() {{ case $1 in *pair7*) {what}; exit;; esac; }}
expect "$*"
[ "${{!#}}" = - ] || exec {PROGRAM} "$@"
while IFS= read -r -d "" name; do expect "$name"; printf '%s\\0' "$name"; done | {PROGRAM} "$@"
""")
    os.chmod("program", 0o755)
    return os.path.abspath("program")


def alone(*pairs):
    """What zentra itself says: by the name of each pair verdict, status, findings."""
    ran = subprocess.run([PROGRAM, "check", "--json", "-j2", "--", *pairs], stdout=subprocess.PIPE)
    names, told = {}, {}
    for line in map(json.loads, ran.stdout.splitlines()):
        if line["type"] == "pair":
            names[line["pair"]] = os.fsdecode(bytes.fromhex(line["name"]["hex"]))
        elif line["type"] == "pair-end":
            told[names[line["pair"]]] = line["verdict"], line["status"], line.get("findings", 0)
    return told


def told_of(table):
    return {row.pair: (row.verdict, row.status, row.findings) for row in table.itertuples()}


def all_pairs(folder):
    return [os.path.join(root, name[:-4]) for root, _, names in os.walk(folder) for name in names
            if name.endswith(".dat")]


def test_the_cluster_says_what_zentra_says(pairs, client):
    done = []
    table = zentra.fleet.check("all/**/*.dat", client, program=PROGRAM,
                               progress=lambda *numbers: done.append(numbers))
    wanted = alone(*all_pairs(pairs / "all"))
    assert told_of(table) == wanted and len(wanted) == 100
    assert sorted(set(table["status"])) == [0, 1, 2] and zentra.fleet.worst(table) == 2
    assert done[-1] == (100, 100) and table["worker"].nunique() == 2
    row = table[table["pair"].str.endswith("/pair12")].iloc[0]
    assert row.codes == "index.key-differs" and row.records == 40
    assert row.bytes == sum(os.path.getsize(row.pair + s) for s in (".dat", ".idx")) and row.seconds > 0
    zentra.fleet.write_summary(table, "report.html", title="<all>")
    with open("report.html", encoding="utf-8") as file:
        page = file.read()
    assert page.count("data:image/png;base64,") == 3 and "://" not in page
    assert "&lt;all&gt;" in page and "<b>" not in page and "pair12" in page
    # A worker that dies in the midst costs nothing else.
    with open("program", "w", encoding="utf-8") as file:
        file.write(f"#!/bin/sh\nmkdir {pairs}/done 2>/dev/null && kill -9 $PPID\nexec {PROGRAM} \"$@\"\n")
    os.chmod("program", 0o755)
    table = zentra.fleet.check("all/**/*.dat", client, program=f"{pairs}/program")
    assert told_of(table) == wanted and os.path.isdir("done")


def test_pairs_come_and_go_meanwhile(pairs, client):
    def change(done, found):
        if os.path.exists("all/f4/pair99.idx"):
            os.remove("all/f4/pair99.idx")
            os.remove("all/f4/pair99.dat")
            os.truncate("all/f4/pair94.idx", 3000)
            copy("first", "all/f4/late")

    table = zentra.fleet.check(["all/f4/*", "all/f4/pair4.idx", "all/nothing*"], client, program=PROGRAM,
                               batch=1, progress=change)
    told = {os.path.basename(name): verdict for name, verdict in told_of(table).items()}
    assert len(told) == 22 and told["late"] == ("sound", 0, 0)
    assert told["pair99"] == ("unfinished", 4, 0) and told["nothing*"] == ("unfinished", 4, 0)
    assert told["pair94"][1] in (1, 2) and sum(status == 0 for _, status, _ in told.values()) == 19
    with pytest.raises(zentra.Error, match="no program 'nix'"):
        zentra.fleet.check("all/f4/*", client, program="nix")


def test_a_folder_that_may_not_be_read_is_told(pairs):
    script = """
import os, sys
from zentra.fleet import worker
from zentra.fleet.listing import Listing
os.chdir(sys.argv[1])
print([row["message"] for row in worker.check_some([b"all/f0/pair5", b"all/f1/pair1"], sys.argv[2], [])])
pairs = Listing(["all/**/*.dat"]).new_pairs()
print(sum(1 for pair in pairs if not pair.why), *[
      (os.path.basename(pair.name), pair.why) for pair in pairs if pair.why])
"""
    os.chmod("all/f1", 0)
    for folder in (pairs, *pairs.parents):
        if folder == pairs or folder.name.startswith("pytest-"):  # others may only be entered
            os.chmod(folder, 0o755)
    other = {"user": NOBODY} if os.geteuid() == 0 else {}
    ran = subprocess.run([sys.executable, "-c", script, str(pairs), PROGRAM], capture_output=True,
                         text=True, **other)
    os.chmod("all/f1", 0o755)
    assert ran.stdout.splitlines() == [
        "['sound', 'all/f1/pair1.idx: Permission denied']",
        "80 (b'f1', 'the folder: Permission denied')"], ran.stderr


def test_dumps_are_those_of_zentra(pairs, client):
    with open("layout", "w", encoding="utf-8") as file:
        file.write(LAYOUT)
    table = zentra.fleet.dump("all/f*/*.dat", "texts", client, program=PROGRAM, layout="layout")
    assert len(table) == 99 and table["status"].isin([0, 2]).all()
    one = table[table["pair"].str.endswith("/pair21")].iloc[0]
    assert (one.status, one.records, one.target) == (0, 40, f"{pairs}/texts/f1/pair21.jsonl")
    wanted = subprocess.run([PROGRAM, "dump", "--layout", "layout", "first"], capture_output=True).stdout
    with open(one.target, "rb") as file:
        assert file.read() == wanted and wanted.count(b"\n") == 40
    copy("first", "all/f1/pair2")
    with pytest.raises(zentra.Error, match="f1/pair2' and '.*f2/pair2' would be written to one file"):
        zentra.fleet.dump(["all/f1/pair2", "all/f2/pair2"], "texts", client, program=PROGRAM)


def test_a_pair_that_kills_its_workers_is_the_only_one_lost(pairs, monkeypatch):
    """And without workers nothing is waited for without end."""
    import dask
    from distributed import Client, LocalCluster

    program = stumble("kill -9 $PPID")
    with dask.config.set({"distributed.scheduler.allowed-failures": 0}), zentra.fleet.local_cluster(
            1) as client:
        table = zentra.fleet.check([f"all/f{n % 5}/pair{n}" for n in range(6, 9)], client,
                                   program=program, batch=1)
    assert table["message"].tolist() == ["sound", "could not be finished: each worker that looked at "
                                         "it died", "sound"]
    monkeypatch.setattr(zentra.fleet, "WORKERS_WITHIN", 0.2)
    with LocalCluster(n_workers=0, dashboard_address=":0") as cluster, Client(cluster) as client:
        with pytest.raises(zentra.Error, match="no workers"):
            zentra.fleet.check("all/f2/*", client, program=PROGRAM)


def test_the_command_line(pairs, client, capsys, monkeypatch):
    cluster = ["--scheduler", client.scheduler.address, "--program", PROGRAM]
    for arguments, status in (
            (["check", "all/f4/*", "-o", "page.html"], 0), (["check", "all/f2/*", "--quick"], 0),
            (["check", "all/f?/*", "--json"], 2), (["check", "nix", "--wait", "0.5"], 4),
            (["dump", "all/f4/pair4", "-o", "texts", "--format", "csv"], 0)):
        assert command.main([*arguments, *cluster]) == status
        said = capsys.readouterr().out
        if "--json" in arguments:
            lines = [json.loads(line) for line in said.splitlines()]
            assert len(lines) == 101 and lines[-1]["status"] == 2 and lines[-1]["needs-salvage"] == 2
    assert said.startswith("1 pairs of ") and said.endswith(": 1 done\n")
    assert os.path.exists("page.html") and os.path.exists("texts/pair4.csv")
    for wrong in ([], ["check"], ["check", "x", "--batch", "0"], ["mend", "x"], ["dump", "x"]):
        with pytest.raises(SystemExit) as end:
            command.main(wrong)
        assert end.value.code == command.USAGE
    monkeypatch.setattr(command, "PATIENCE", 0.2)
    assert command.main(["check", "x", "--scheduler", "tcp://127.0.0.1:1"]) == 4


def test_reports_that_are_torn_off(pairs):
    """What a child does not come to is looked at by one of its own; the others are not in doubt."""
    program = stumble("kill -9 $$")
    names = [os.fsencode(f"all/f{n % 5}/pair{n}") for n in range(5, 9)]
    for _ in range(2):
        rows = worker.check_some(names, program, [])
        assert [row["message"] for row in rows] == ["sound", "sound", "could not be finished: signal 9",
                                                    "sound"]


def test_a_child_lives_on_and_ends_when_nobody_asks_it(pairs, monkeypatch):
    monkeypatch.setattr(children, "_IDLE", 0.3)
    names = [os.fsencode(f"all/f{n % 5}/pair{n}") for n in range(20, 40)]
    with open("program", "w", encoding="utf-8") as file:
        file.write(f"#!/bin/sh\necho one more >> started\nexec {PROGRAM} \"$@\"\n")
    os.chmod("program", 0o755)
    long_names = [b"./" * 1500 + name for name in names]  # that do not go into the pipe at once
    for some in (names, names[:1], long_names):
        rows = worker.check_some(some, f"{pairs}/program", [])
        assert [row["verdict"] for row in rows] == ["sound"] * len(some)
    with open("started", encoding="utf-8") as file:
        assert file.read() == "one more\n"
    until = time.monotonic() + 20
    while any(children._idle.values()):
        assert time.monotonic() < until
        time.sleep(0.05)
