# Helpers of the scripts in this folder: sourced, not run.
# shellcheck shell=bash

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly source_dir

say() { printf '\n== %s\n' "$*"; }
fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# Debian packages that were found missing; filled by the need_* functions.
missing=()

# need_command PACKAGE COMMAND...: one of the commands must be there.
need_command() {
  local package=$1 command
  shift
  for command in "$@"; do
    if command -v "$command" >/dev/null; then return; fi
  done
  missing+=("$package")
}

# need_file PACKAGE FILE
need_file() {
  [ -e "$2" ] || missing+=("$1")
}

# need_compile PACKAGE COMPILER CODE FLAG...: a program of that one line must build.
need_compile() {
  local package=$1 compiler=$2 code=$3 probe
  shift 3
  probe=$(mktemp)
  if ! command -v "$compiler" >/dev/null ||
    ! "$compiler" -x c++ - -o "$probe" "$@" <<<"$code" >/dev/null 2>&1; then
    missing+=("$package")
  fi
  rm -f "$probe"
}

# The headers that zentra takes of others.
need_companions() {
  need_compile libcli11-dev g++ '#include <CLI/CLI.hpp>' -std=c++20 -fsyntax-only
  need_compile nlohmann-json3-dev g++ '#include <nlohmann/json.hpp>' -std=c++20 -fsyntax-only
  need_compile libfmt-dev g++ '#include <fmt/format.h>' -std=c++20 -fsyntax-only
}

# What the Python package is built and tested with, all of it the system's Python.
need_python() {
  local module
  need_file python3 /usr/bin/python3
  need_file python3-dev /usr/bin/python3-config
  need_file python3-venv /usr/share/doc/python3-venv
  need_file pybind11-dev /usr/include/pybind11/pybind11.h
  for module in pybind11 numpy pandas dask distributed matplotlib pytest hypothesis; do
    if ! /usr/bin/python3 -c "import importlib.util as u; exit(not u.find_spec('$module'))" 2>/dev/null; then
      missing+=("python3-$module")
    fi
  done
}

# Installs what was found missing. Does nothing at all when nothing was.
install_missing() {
  ((${#missing[@]})) || return 0
  local as_root=()
  say "installing: ${missing[*]}"
  command -v apt-get >/dev/null || fail "please install by hand: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "not root and no sudo; please install: ${missing[*]}"
    as_root=(sudo)
  fi
  as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get)
  "${as_root[@]}" update -qq </dev/null
  "${as_root[@]}" install -y -qq --no-install-recommends "${missing[@]}" </dev/null
  missing=()
}

jobs() { nproc 2>/dev/null || echo 2; }

# configure PRESET FOLDER FLAG...: sets the build folder up, from nothing if it belongs to a
# source folder that stood elsewhere.
configure() {
  local preset=$1 folder=$2 generator=()
  shift 2
  if ! grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$source_dir" "$folder/CMakeCache.txt"; then
    rm -rf "$folder"
    if command -v ninja >/dev/null; then generator=(-G Ninja); fi
  fi
  (cd "$source_dir" && cmake --preset "$preset" -B "$folder" "${generator[@]}" "$@" >/dev/null)
}

# build FOLDER TARGET...
build() {
  local folder=$1
  shift
  cmake --build "$folder" --parallel "$(jobs)" ${1:+--target "$@"}
}
