"""The Python part of together.c: the package, and a third user of the shared library, by ctypes."""
import ctypes
import subprocess
import sys

import zentra

PROBE = """
import sys, zentra
with zentra.open("pair", mode="r+") as pair:
    for key in sys.argv[1:]:
        try:
            with pair.lock(key, wait=False):
                print(key, "free")
        except zentra.RecordLockedError:
            print(key, "locked")
"""


def probe(*keys):
    sys.stdout.flush()
    subprocess.run(["/usr/bin/python3", "-c", PROBE, *keys], check=True)


third = ctypes.CDLL("libisam.so.0")
ISINOUT, ISMANULOCK, RD_EQUAL, RD_LOCK = 2, 0x400, 5, 0x100
pair = zentra.open("pair", mode="r+")
opened = third.isopen(b"pair", ISINOUT + ISMANULOCK)
buffer = ctypes.create_string_buffer(b"000003", 65)
with pair.lock("000002"):
    assert third.isread(opened, buffer, RD_EQUAL + RD_LOCK) == 0
    probe("000001", "000002", "000003", "000004")  # each is kept, whoever has it
    for _ in pair:  # reading on does not touch them
        pass
    probe("000001", "000002", "000003")
third.isclose(opened)
probe("000004")
pair.close()
