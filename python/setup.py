"""Builds the package with setuptools: `pip install --no-build-isolation .` in this folder.

The compiled module links the installed shared library, which pkg-config tells of; what reads layouts
is compiled from the folder `layout` beside this one. (CMake builds the same with KESTRO_PYTHON.)
"""

import glob
import os
import re
import subprocess
import sys
import tempfile

from setuptools import setup

os.chdir(os.path.dirname(os.path.abspath(__file__)))


def pkg_config(*words):
    try:
        told = subprocess.run(["pkg-config", *words, "isam"], capture_output=True, text=True)
    except FileNotFoundError:
        sys.exit("zentra: pkg-config is not there, which tells where the library isam is installed")
    if told.returncode:
        sys.exit("zentra: pkg-config does not know the library isam: install libisam-dev, or name the "
                 "folder of isam.pc in PKG_CONFIG_PATH")
    return told.stdout.split()


def version():
    with open("../CMakeLists.txt", encoding="utf-8") as file:
        return re.search(r"project\(kestro VERSION ([0-9.]+)", file.read())[1]


def extension():
    try:
        from pybind11.setup_helpers import Pybind11Extension
    except ModuleNotFoundError:
        sys.exit("zentra: the Python package pybind11 is missing (python3-pybind11 of Debian)")
    libraries = pkg_config("--libs-only-l")
    folders = [word[2:] for word in pkg_config("--libs-only-L")]
    return Pybind11Extension(
        "zentra._zentra",
        sorted(glob.glob("src/_zentra/*.cpp") + glob.glob("../layout/*.cpp")),
        include_dirs=["..", *(word[2:] for word in pkg_config("--cflags-only-I"))],
        library_dirs=folders, libraries=[word[2:] for word in libraries],
        # A library outside of the system's folders is found where it was when this was built.
        runtime_library_dirs=[folder for folder in map(os.path.realpath, folders)
                              if not folder.startswith(("/lib/", "/usr/lib"))],
        cxx_std=20, extra_compile_args=["-O2"])


if not os.path.isdir("../layout"):
    sys.exit("zentra: the folder ../layout is missing; the package is built in the project's sources")
# What is made on the way is nobody's afterwards.
with tempfile.TemporaryDirectory() as made:
    setup(version=version(), ext_modules=[extension()],
          options={"build": {"build_base": made}, "egg_info": {"egg_base": made}})
