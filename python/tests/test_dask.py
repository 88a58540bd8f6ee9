"""Dataframes of Dask: the same as pandas', and of one moment whoever changes the pair."""
import subprocess
import sys
import threading

import pandas as pd
import pytest

import zentra
from zentra import partitions

TAILED = "id long 0\nnotes char tail"
ROUNDS = "id long 0\nround long next"
# Rewrites one record after the other with the number of the round; rests after some of them.
WRITER = """
import sys, time, zentra
with zentra.open("rounds", mode="r+") as pair:
    for number in range(pair[0]["round"] + 1, 1 << 30):
        for key in range(400):
            pair.update({"id": key, "round": number})
            if key == 200:
                print("on", flush=True)
                time.sleep(float(sys.argv[1]))
"""


def test_partitions_are_the_same_as_a_whole(pair):
    whole = zentra.read_pandas(pair, numbers=True, decimals="exact")
    zentra.write_pandas(zentra.read_pandas(pair).iloc[:70], "more", zentra.Layout.of(pair), "id")
    for hold in (True, False):
        for count in (1, 3, 40):
            frame = zentra.read_dask(pair, partitions=count, numbers=True, decimals="exact", hold=hold)
            assert frame.npartitions == count and (frame.dtypes == whole.dtypes).all()
            pd.testing.assert_frame_equal(frame.compute(scheduler="sync"), whole)
        many = zentra.read_dask([pair, "more.dat"], partitions=4, fields=["group", "rate", "since"],
                                hold=hold)
        assert many.npartitions == 8 and list(many.columns) == ["group", "rate", "since"]
        both = pd.concat([zentra.read_pandas(name, zentra.Layout.of(pair)) for name in (pair, "more")])
        got = many.groupby("group")["rate"].agg(["sum", "count"]).compute(scheduler="threads")
        pd.testing.assert_frame_equal(got.sort_index(), both.groupby("group")["rate"].agg(["sum", "count"]))
    assert zentra.read_dask(pair).npartitions == 1  # of 64 MiB
    tails = pd.DataFrame({"id": range(50), "notes": ["Ä" * n for n in range(50)]})
    zentra.write_pandas(tails, "tails", TAILED, "id")
    frame = zentra.read_dask("tails", TAILED, partitions=3)
    assert frame["notes"].compute(scheduler="threads").tolist() == tails["notes"].tolist()


def test_what_cannot_be_read_is_told(pair):
    for wrong in ({"fields": ["nix"]}, {"partitions": 0}, {"decimals": "none"}):
        with pytest.raises(zentra.Error):
            zentra.read_dask(pair, **wrong)
    with pytest.raises(zentra.Error, match="no pairs"):
        zentra.read_dask([])
    with pytest.raises(zentra.LayoutError, match="pair"):
        zentra.read_dask(pair, "id char 0 200")
    frame = zentra.read_dask(pair, partitions=3)
    hold = "import zentra\nwith zentra.open('pair', mode='r+', exclusive=True): print(1, flush=True), input()"
    with subprocess.Popen([sys.executable, "-c", hold], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as process:
        process.stdout.readline()
        with pytest.raises(zentra.InUseError, match="pair"):
            frame.compute(scheduler="sync")
        with pytest.raises(zentra.InUseError, match="pair"):
            zentra.read_dask(pair)
        process.communicate("\n")
    assert len(frame.compute(scheduler="sync")) == 290
    zentra.erase(pair)
    with pytest.raises(zentra.NoPairError, match="pair"):
        frame.compute(scheduler="sync")


def writer(pause):
    process = subprocess.Popen([sys.executable, "-c", WRITER, str(pause)], stdout=subprocess.PIPE,
                               text=True)
    assert process.stdout.readline() + process.stdout.readline() == "on\non\n"
    threading.Thread(target=process.stdout.read).start()
    return process


def is_one_moment(frame):
    """As far as the writer has come all records are of one round, and behind it of the one before."""
    rounds = frame.sort_values("id")["round"].tolist()
    return len(rounds) == 400 and rounds == sorted(rounds, reverse=True) and rounds[0] - rounds[-1] <= 1


def test_partitions_are_of_one_moment(here, monkeypatch):
    zentra.write_pandas(pd.DataFrame({"id": range(400), "round": 0}), "rounds", ROUNDS, "id",
                        save_layout=True)
    frame = zentra.read_dask("rounds", partitions=20)
    reads = []
    monkeypatch.setattr(partitions._Reader, "_read",
                        lambda self, *a, read=partitions._Reader._read: (reads.append(a), read(self, *a))[1])
    process = writer(0.2)
    try:
        for count in range(1, 100):
            assert is_one_moment(frame.compute(scheduler="threads"))
            if len(reads) > 20 * count and count > 3:
                break
        assert len(reads) > 20 * count, "it was never in the way"
    finally:
        process.kill()
        process.wait()
    changes, seen = [], partitions._last_number

    def change_meanwhile(pair):
        with zentra.open("rounds", mode="r+") as file:
            file.update({"id": 7, "round": len(changes)})
        changes.append(seen(pair))
        return changes[-1]

    monkeypatch.setattr(partitions, "_PAUSE", 0.001)
    for count, hold, readings in ((5, True, 30), (1, True, 6), (5, False, 1)):
        frame = zentra.read_dask("rounds", partitions=count, hold=hold)
        monkeypatch.setattr(partitions, "_last_number", change_meanwhile)
        del changes[:]
        with pytest.raises(zentra.ChangedError, match="/rounds\" has been changed") as error:
            frame.compute(scheduler="sync")
        assert error.value.pair == str(here / "rounds") and len(changes) == readings
        monkeypatch.setattr(partitions, "_last_number", seen)
        assert len(frame.compute(scheduler="sync")) == 400


def test_what_is_held_goes_to_other_workers(pair, client):
    frame = zentra.read_dask(pair, partitions=6)
    whole = zentra.read_pandas(pair)
    got = client.compute(frame.groupby("group")["credit"].sum()).result()
    pd.testing.assert_series_equal(got.sort_index(), whole.groupby("group")["credit"].sum())
    pd.testing.assert_frame_equal(client.compute(frame).result().reset_index(drop=True), whole)
