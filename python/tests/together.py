"""The Python part of together.c: the package, and a third user of the shared library, by ctypes. What
one of them locks stays locked, whatever the others open, lock, change, release and close."""
import ctypes
import os
import subprocess
import threading

import zentra

PROBE = """
import sys, zentra
with zentra.open("pair", mode="r+") as pair:
    for number in range(1, 9):
        try:
            with pair.lock(f"{number:06d}", wait=False):
                pass
        except zentra.RecordLockedError:
            print(number, end=" ")
"""


def locked():
    """The records that another process finds locked."""
    told = subprocess.run(["/usr/bin/python3", "-c", PROBE], check=True, capture_output=True, text=True)
    return [int(word) for word in told.stdout.split()]


def application(what):
    assert ctypes.CDLL(None).application(what.encode()) == 0, what


ALL = list(range(1, 9))
third = ctypes.CDLL("libisam.so.0")
ISINOUT, ISMANULOCK, RD_EQUAL, RD_LOCK = 2, 0x400, 5, 0x100
opened = third.isopen(b"pair", ISINOUT + ISMANULOCK)
assert third.isread(opened, ctypes.create_string_buffer(b"000003", 65), RD_EQUAL + RD_LOCK) == 0

# Whoever has a lock keeps it.
with zentra.open("pair", mode="r+") as pair:
    with pair.lock("000002"):
        with zentra.open("pair", mode="r+") as other, other.lock("000004"):
            assert locked() == [1, 2, 3, 4]
        assert locked() == [1, 2, 3]
        for _ in pair:
            pass
    assert locked() == [1, 3]
    pair.update({"id": "000005", "group": 4})
    pair.update(pair["000006"])
    zentra.read_numpy(pair)
assert locked() == [1, 3]
zentra.read_numpy("pair")

# Two threads with locks of their own, and one that they share.
with zentra.open("pair", mode="r+") as pair:
    both = threading.Barrier(2)
    seen = []

    def work(mine):
        for _ in range(20):
            with pair.lock("000005"), pair.lock(mine) as record:
                both.wait(10)
                pair.update(record)
        with pair.lock(mine):
            if both.wait(10) == 0:
                seen.append(locked())
            both.wait(10)
    threads = [threading.Thread(target=work, args=(key,)) for key in ("000006", "000007")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(30)
    assert seen == [[1, 3, 6, 7]]
assert locked() == [1, 3]

# The whole file: the application's lock stays, and is told to others.
application("locks all")
with zentra.open("pair", mode="r+") as pair:
    with pair.lock("000006"):
        pass
    pair.update({"id": "000006", "group": 2})
assert locked() == ALL
application("unlocks all")
assert locked() == []  # which goes for the process
application("locks it")
assert third.isread(opened, ctypes.create_string_buffer(b"000003", 65), RD_EQUAL + RD_LOCK) == 0

# A transaction of the application: the package's changes are none of it.
application("begins")
application("changes it")
with zentra.open("pair", mode="r+", transactions=False) as pair:
    with pair.lock("000008") as record:
        pair.update({**record, "group": 7})
assert locked() == [1, 3]
application("rolls back")
with zentra.open("pair") as pair:
    assert pair["000008"]["group"] == 7 and pair["000001"]["name"].startswith("M")
application("locks it")
third.isread(opened, ctypes.create_string_buffer(b"000003", 65), RD_EQUAL + RD_LOCK)

# A child has none of the locks, and takes none away.
pair = zentra.open("pair", mode="r+")
with pair.lock("000002"):
    child = os.fork()
    if child == 0:
        status = 1
        try:
            try:
                pair["000001"]
            except zentra.ForkError:
                with zentra.open("pair", mode="r+") as mine:
                    try:
                        with mine.lock("000001", wait=False):
                            pass
                    except zentra.RecordLockedError:
                        status = 0
            pair.close()
        finally:
            os._exit(status)
    assert os.waitpid(child, 0)[1] == 0
    assert locked() == [1, 2, 3]
pair.close()
assert locked() == [1, 3]
third.isclose(opened)
application("still has it")
print("done")
