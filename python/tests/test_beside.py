"""Two processes of Python and an application in C at work on one pair at the same time: nothing is lost."""
import os
import subprocess
import sys

import pytest

import zentra

LAYOUT = "key char 0 8\namount long next\nrest bytes next 4\n"
ROUNDS = 60
REST = b"    "

# What beside.c does, in Python.
WORK = """
import sys, zentra
name, rounds = sys.argv[1], int(sys.argv[2])

def add(file, key, amount):
    with file.lock(key) as record:
        file.update({**record, "amount": record["amount"] + amount})

class Undone(Exception):
    pass

with zentra.log("log") as log, zentra.open("pair", mode="r+") as file, \\
        zentra.open("pair", mode="r+", transactions=False) as plain, \\
        zentra.open("own") as own, own.lock(name + "0000"):
    print("ready", flush=True)
    input()
    for n in range(1, rounds + 1):
        try:
            with log.transaction():
                add(file, f"a{n % 3:07d}", -n)
                add(file, "a0000003", n)
                file.insert({"key": f"{name}{n:04d}", "amount": n, "rest": b"    "})
                if n % 3 == 0:
                    raise Undone
        except Undone:
            pass
        add(plain, "count000", 1)
    print("done", flush=True)
    input()
"""


@pytest.mark.skipif("BESIDE" not in os.environ, reason="runs where CMake has built the program")
def test_python_and_c_at_work_on_one_pair(here):
    names = ["pyt1", "pyt2", "appl"]
    with zentra.create("pair", LAYOUT, "key", save_layout=True) as file:
        for key in ["count000", *(f"a{n:07d}" for n in range(4))]:
            file.insert({"key": key, "amount": 0, "rest": REST})
    with zentra.create("own", LAYOUT, "key", save_layout=True) as file:
        for name in names:
            file.insert({"key": f"{name}0000", "amount": 0, "rest": REST})
    open("log", "x").close()
    commands = [[sys.executable, "-c", WORK, name, str(ROUNDS)] for name in names[:2]]
    commands.append([os.environ["BESIDE"], "pair", "own", "log", names[2], str(ROUNDS)])
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
    processes = [subprocess.Popen(command, **pipes) for command in commands]

    def expect(word):
        for process in processes:
            assert process.stdout.readline() == word + "\n", process.communicate(timeout=10)

    def tell_all_to_go_on():
        for process in processes:
            process.stdin.write("go\n")
            process.stdin.flush()

    with zentra.open("pair", mode="r+") as file, zentra.open("own", mode="r+") as own:
        expect("ready")
        tell_all_to_go_on()
        expect("done")
        for name in names:  # what each has had locked since it began
            with pytest.raises(zentra.RecordLockedError), own.lock(f"{name}0000", wait=False):
                pass
        for key in ("count000", "a0000003", "pyt10002", "appl0002"):  # and nothing else
            with file.lock(key, wait=False):
                pass
        tell_all_to_go_on()
        assert [process.wait(20) for process in processes] == [0, 0, 0]
        stand = [n for n in range(1, ROUNDS + 1) if n % 3]
        assert [r["amount"] for r in file.index(1).prefix("a0")] == [
            -3 * sum(n for n in stand if n % 3 == account) for account in range(3)] + [3 * sum(stand)]
        assert file["count000"]["amount"] == 3 * ROUNDS
        for name in names:
            assert [r["amount"] for r in file.index(1).prefix(name)] == stand
        assert len(file) == 5 + 3 * len(stand)
