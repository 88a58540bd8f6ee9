"""The package as a whole: its README, its company in a process, and how it is built."""
import os
import re
import subprocess
import sys

import pytest
from conftest import LAYOUT, record

import zentra

FOLDER = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def test_examples_of_the_readme(here, monkeypatch):
    monkeypatch.setenv("PATH", os.path.dirname(os.environ.get("ZENTRA", "")), prepend=os.pathsep)
    with open(os.path.join(FOLDER, "README.md"), encoding="utf-8") as file:
        blocks = re.findall(r"^```python\n(.*?)^```$", file.read(), re.M | re.S)
    assert len(blocks) > 8
    names = {"__name__": "readme"}
    for number, block in enumerate(blocks, 1):
        exec(compile(block, f"README.md, block {number}", "exec"), names)


@pytest.mark.skipif("TOGETHER" not in os.environ, reason="runs where CMake has built the program")
def test_all_users_of_the_library_in_a_process_keep_their_locks(here):
    with zentra.create("pair", LAYOUT, "id", save_layout=True) as file:
        for n in range(1, 9):
            file.insert(record(n))
    open("log", "x").close()
    ran = subprocess.run([os.environ["TOGETHER"], "pair", "log", os.path.join(FOLDER, "tests/together.py")],
                         capture_output=True, text=True)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, "done\n", "")


def test_without_the_library_the_build_says_what_is_missing(here):
    ran = subprocess.run([sys.executable, os.path.join(FOLDER, "setup.py"), "--version"],
                         capture_output=True, text=True,
                         env={**os.environ, "PKG_CONFIG_LIBDIR": str(here), "PKG_CONFIG_PATH": ""})
    assert ran.returncode == 1
    assert re.search(r"^zentra: .*isam: install libisam-dev", ran.stderr, re.M)


def test_what_the_package_offers_is_there():
    assert zentra.library_version().startswith("kestro") or zentra.library_version()
    for name in zentra.__all__:
        assert getattr(zentra, name).__doc__, name
    with pytest.raises(AttributeError):
        zentra.nothing  # noqa: B018
