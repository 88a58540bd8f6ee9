"""Arrays and dataframes of whole pairs."""
import contextlib
import os
import subprocess
import sys
import threading
import tracemalloc

import numpy as np
import pandas as pd
import pytest
from conftest import KEYS, LAYOUT, present, record

import zentra


def test_arrays_hold_what_records_do(pair):
    wanted = present()
    array = zentra.read_numpy(pair, numbers=True)
    assert array.dtype.names == ("number", "id", "name", "since", "credit", "active", "rate", "group")
    assert array["number"].tolist() == [int(r["id"]) for r in wanted]
    assert [n.decode() for n in array["name"]] == [r["name"] for r in wanted]
    assert array["since"].tolist() == [r["since"] for r in wanted]
    assert array["credit"].tolist() == [float(r["credit"]) for r in wanted]
    assert array["group"].dtype == "i2" and array["active"].dtype == bool
    assert np.isnan(array["rate"]).tolist() == [r["rate"] is None for r in wanted]
    few = zentra.read_numpy(pair, fields=["group", "id"], first=95, last=112)
    assert few.dtype.names == ("group", "id")
    assert few["id"].tolist() == [b"%06d" % n for n in (*range(95, 100), 110, 111, 112)]
    raw = zentra.read_numpy(pair, raw=True)
    assert raw.dtype["group"] == ">i2" and (raw["group"] == array["group"]).all()
    with zentra.open(pair, record=bytes) as file:
        assert raw.tobytes() == b"".join(file.by_number())
        assert (zentra.read_numpy(file, LAYOUT)["id"] == array["id"]).all()
    assert len(zentra.read_numpy(pair, first=300, last=299)) == 0
    parts = list(zentra.iter_numpy(pair, records=64, numbers=True))
    assert [len(p) for p in parts] == [64, 64, 64, 64, 34]
    assert (np.concatenate(parts)["number"] == array["number"]).all()
    for wrong in ({"fields": ["nix"]}, {"first": -1}, {"last": 1 << 40}):
        with pytest.raises(zentra.Error):
            zentra.read_numpy(pair, **wrong)


def test_frames_hold_what_records_do(pair):
    wanted = pd.DataFrame(present())
    frame = zentra.read_pandas(pair, numbers=True, decimals="exact")
    assert frame.index.name == "number" and frame.index[-1] == 300
    for name in ("id", "name", "credit", "active", "group"):
        assert frame[name].tolist() == wanted[name].tolist()
    assert frame["since"].isna().tolist() == wanted["since"].isna().tolist()
    parts = list(zentra.iter_pandas(pair, records=100, numbers=True, decimals="exact"))
    assert [len(p) for p in parts] == [100, 100, 90] and pd.concat(parts).equals(frame)
    with zentra.create("far", "id int 0\nwhen long next date YYYYMMDD", "id") as file:
        import datetime
        file.insert({"id": 1, "when": datetime.date(9999, 12, 31)})
    assert zentra.read_numpy("far", "id int 0\nwhen long next date YYYYMMDD")["when"][0].item().year == 9999
    with pytest.raises(zentra.FieldError, match="'far', record 1, field when"):
        zentra.read_pandas("far", "id int 0\nwhen long next date YYYYMMDD")


def test_a_frame_becomes_a_pair(pair):
    frame = zentra.read_pandas(pair)
    assert zentra.write_pandas(frame, "copy", LAYOUT, KEYS, save_layout=True) == 290
    with zentra.open("copy") as file:
        assert list(file) == present()
        assert file.index("group").first() == next(iter(zentra.open(pair).index("group")))
    made = zentra.layout_of(frame)
    assert zentra.write_pandas(frame, "guessed", None, "id", save_layout=True) == 290
    assert zentra.read_pandas("guessed", made).equals(zentra.read_pandas("guessed"))
    assert zentra.write_pandas(frame.iloc[:0], "empty", LAYOUT, "id") == 0
    twice = pd.concat([frame, frame.iloc[3:9]], ignore_index=True)
    with pytest.raises(zentra.DuplicateKeyError, match="6 rows have the keys of others: 290, 291"):
        zentra.write_pandas(twice, "twice", LAYOUT, "id")
    with pytest.raises(zentra.FieldTypeError):
        zentra.write_pandas({"id": ["1"]}, "twice", LAYOUT, "id")
    assert zentra.write_pandas(twice, "dropped", LAYOUT, "id", duplicates="drop") == 290
    for change, kind, why in [
            ({"credit": 0.125}, zentra.FieldError, "record 7, field credit: 0.125 has more than 2"),
            ({"name": "x" * 21}, zentra.FieldError, "record 7, field name: a text of 21 bytes"),
            ({"name": "\ud800"}, zentra.FieldError, "record 7, field name"),
            ({"name": None}, zentra.FieldTypeError, "record 7, field name"),
            ({"group": 40000}, zentra.FieldError, "record 7, field group: 40000 does not fit int"),
            ({"since": pd.Timestamp("2024-01-01 10:00")}, zentra.FieldTypeError, "field since")]:
        wrong = frame.astype({"name": object, "group": "i8"})
        for name, value in change.items():
            wrong.loc[7, name] = value
        with pytest.raises(kind, match=why):
            zentra.write_pandas(wrong, "wrong", LAYOUT, "id")
    for wrong in (frame.assign(more=1), frame.drop(columns="id")):
        with pytest.raises(zentra.Error):
            zentra.write_pandas(wrong, "wrong", LAYOUT, "id")
    with pytest.raises(zentra.PairExistsError):
        zentra.write_pandas(frame, "copy", LAYOUT, "id")
    assert sorted(name for name in os.listdir() if name.startswith(("wrong", "twice"))) == []


def test_tails_of_frames(here):
    frame = pd.DataFrame({"id": range(3000), "notes": ["Ä" * (n % 50) for n in range(3000)]})
    layout = "id long 0\nnotes char tail"
    assert zentra.write_pandas(frame, "pair", layout, "id") == 3000
    assert zentra.read_pandas("pair", layout)["notes"].tolist() == frame["notes"].tolist()
    assert zentra.read_numpy("pair", layout, raw=True)["notes"][49] == "Ä".encode() * 49
    with pytest.raises(zentra.FieldError, match="record 1000, field notes"):
        zentra.read_numpy("pair", layout, first=1000, last=1004, encoding="ascii")


def test_reading_goes_on_while_others_write(pair):
    """Each record is whole, whatever others do, and none that stays is missing."""
    stop = threading.Event()
    script = f"""
import zentra, sys
sys.path.insert(0, {os.path.dirname(__file__)!r})
from conftest import record
with zentra.open("pair", mode="r+") as file:
    print("on", flush=True)
    n = 400
    while True:
        file.insert(record(n))
        file.update({{**record(5), "group": n % 100}})
        n += 1
"""
    process = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True)
    try:
        process.stdout.readline()
        for _ in range(30):
            array = zentra.read_numpy(pair)
            assert len(set(array["id"].tolist())) == len(array) >= 290
            assert array["id"][:99].tolist() == [b"%06d" % n for n in range(1, 100)]
    finally:
        process.kill()
        process.communicate()
        stop.set()


@pytest.mark.skipif("asan" in os.environ.get("LD_PRELOAD", ""), reason="sanitizers take their time")
def test_arrays_are_not_made_value_by_value(here):
    """bench/python measures; this one only sees that nothing is slow by far."""
    layout = "id long 0\nname char next 60\nborn char next 8 date YYYYMMDD null\nrate double next null\n" \
             "sum long next decimal 2\nrest bytes next 44"
    frame = pd.DataFrame({"id": np.arange(100_000), "name": "some name", "rate": 0.5, "sum": 1.25,
                          "born": pd.Timestamp("2020-02-02")})
    frame["rest"] = b"x" * 44
    zentra.write_pandas(frame, "pair", layout, "id")
    import time

    def best(work):
        times = []
        for _ in range(5):
            began = time.process_time()
            work()
            times.append(time.process_time() - began)
        return min(times)
    bare = best(lambda: np.fromfile("pair.dat", dtype="u1"))
    assert best(lambda: zentra.read_numpy("pair", layout)) < 8 * bare + 0.01


assert record


def test_a_damaged_count_of_records_takes_no_memory(pair):
    with open("pair.idx", "r+b") as file:
        file.seek(33)  # the highest number in use
        file.write(b"\x7f\xff\xff\xff")
    tracemalloc.start()
    with contextlib.suppress(zentra.Error):
        zentra.read_numpy(pair)
    with contextlib.suppress(zentra.Error), zentra.open(pair) as file:
        assert len(list(file)) == 290
    most = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert most < 16 << 20
