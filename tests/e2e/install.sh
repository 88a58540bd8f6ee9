#!/usr/bin/env bash
# What is installed and packaged, as an application's developer finds it.
#
#   install.sh STEP BUILD_FOLDER WORK_FOLDER
#
# STEP is one of
#   tree      installs into WORK_FOLDER/root; the steps below that use it need this one first
#   symbols   the shared library shows what isam.h declares and nothing else
#   shared    the installed examples build with the shared library, run and agree
#   static    the same with the static library
#   packages  what the Debian packages hold and depend on
#   examples  the examples of the build folder run and agree, whatever flags it has
#
# Of the environment: CC, CXX, KESTRO and ISRECOVER (the programs), EXTRA_FLAG (that users of the
# static library need too), LIBDIR (of the installation, relative) and CMAKE_GENERATOR.
set -euo pipefail

readonly step=$1 build=$2 work=$3
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly source_dir
readonly root=$work/root
readonly libraries=$root/$LIBDIR
readonly examples=$root/share/doc/libisam-dev/examples

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# fresh FOLDER: empties it and goes there.
fresh() {
  rm -rf "$1"
  mkdir -p "$1"
  cd "$1"
}

# run_and_compare PROGRAM...: each makes a pair of its own in this folder; what they print must
# agree, and every pair be sound.
run_and_compare() {
  local program name first=
  for program in "$@"; do
    name=pair_$(basename "$program")
    "$program" "$name" >"$name.out" || fail "$program ended with $?"
    grep -q '^4 customers after all$' "$name.out" || fail "$program printed: $(cat "$name.out")"
    first=${first:-$name}
    diff "$first.out" "$name.out" || fail "$name and $first differ"
    "$KESTRO" -n "$name" >"$name.report"
    grep -q ' 4 data record(s) used, ' "$name.report" || fail "kestro: $(cat "$name.report")"
    if grep -E 'ERROR|[?]' "$name.report"; then fail "$name is not sound"; fi
  done
}

# Where Debian's shells look for what they complete.
readonly completions=(bash-completion/completions/zentra zsh/vendor-completions/_zentra
  fish/vendor_completions.d/zentra.fish)

step_tree() {
  local file
  fresh "$root"
  cd "$work"
  cmake --install "$build" --prefix "$root" >install.log || fail "$(cat install.log)"
  for file in bin/{kestro,kestroenv,isrecover} include/isam.h include/isam.hpp \
    share/man/man8/{kestro,isrecover}.8 share/man/man5/zentra-format.5 \
    "$LIBDIR"/libisam.a "$LIBDIR"/pkgconfig/isam.pc "$LIBDIR"/cmake/Isam/IsamConfig.cmake \
    share/doc/libisam-dev/examples/{accounts.c,customers.c,customers.cpp}; do
    [ -f "$root/$file" ] || fail "$file is not installed"
  done
  if [ -f "$root/bin/zentra" ]; then
    for file in man/man1/zentra{,-check,-info,-load,-reindex,-repair,-show,-undo}.1 man/man5/zentra-{keys,raw}.5 \
      man/man7/zentra-crash.7 "${completions[@]}"; do
      [ -s "$root/share/$file" ] || fail "$file is not installed"
    done
  fi
  if [ -d "$build/python" ]; then
    PYTHONPATH=$root/lib/python3/dist-packages LD_LIBRARY_PATH=$libraries /usr/bin/python3 -B \
      -c 'import zentra; zentra.read_numpy; print(zentra.library_version())' >python.out || fail "Python package"
  fi
  if grep -rlI "$source_dir/" "$root"; then fail "these name the source folder"; fi
  "$CC" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c "$root/include/isam.h"
  "$CXX" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c++ \
    - <<<'#include "isam.hpp"' -I"$root/include"
  "$CXX" -std=c++17 -fsyntax-only -x c++ - <<<'#include "isam.hpp"' -I"$root/include" 2>older &&
    fail "isam.hpp compiles as C++17"
  [ "$(grep -c 'error:' older)" = 1 ] || fail "isam.hpp and C++17: $(cat older)"
}

# The names that a header declares outside of braces: functions and variables.
declared_names() {
  sed '/^ *# *include/d' "$1" | "$CC" -std=c11 -E -P -x c - | tr '\n\t' '  ' |
    sed ':again; s/{[^{}]*}//g; t again' | tr ';' '\n' |
    sed -n -e 's/^.*[ *]\([A-Za-z0-9_]*\) *(.*$/\1/p; t' \
      -e 's/^ *extern .*[ *]\([A-Za-z0-9_]*\) *$/\1/p' | sort
}

# The names that the shared library shows.
shown_names() { nm -D --defined-only "$libraries/libisam.so" | awk '{ print $3 }' | sort; }

step_symbols() {
  declared_names "$root/include/isam.h" >"$work/declared"
  shown_names >"$work/shown"
  grep -qx isread "$work/declared" || fail "no declarations found in isam.h"
  diff "$work/declared" "$work/shown" || fail "isam.h (<) and libisam.so (>) differ"
}

# build_consumer TARGET [FLAG]: the examples as a CMake project builds them.
build_consumer() {
  {
    CC=$CC CXX=$CXX CFLAGS=${2-} CXXFLAGS=${2-} \
      cmake -S "$source_dir/tests/e2e/install_consumer" -B consumer \
      -DCMAKE_PREFIX_PATH="$root" -DEXAMPLES="$examples" -DTARGET="$1"
    cmake --build consumer
  } >consumer.log 2>&1 || fail "$(cat consumer.log)"
}

# compile_by_pkg_config PROGRAM [static]: the example in C as a makefile would build it.
compile_by_pkg_config() {
  local words
  words=$(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config ${2:+"--$2"} --cflags --libs isam)
  # shellcheck disable=SC2086  # several words
  "$CC" -std=c11 -Wall -Wextra -Werror "$examples/customers.c" -o "$1" \
    ${2:+"-$2" $EXTRA_FLAG} $words || fail "$CC ${2:+"-$2"} $words"
}

needs_shared_library() { readelf -d "$1" | grep -q 'NEEDED.*libisam\.so\.[0-9]'; }

readonly programs=(./by_pkg_config consumer/customers_c consumer/customers_cpp)

step_shared() {
  local program
  fresh "$work/shared"
  printf '%s\n' 'cmake_minimum_required(VERSION 3.20)' 'project(plain LANGUAGES C)' \
    'find_package(Isam REQUIRED)' "add_executable(plain $examples/customers.c)" \
    'target_link_libraries(plain Isam::isam)' >CMakeLists.txt
  CC=$CC cmake -S . -B plain -DCMAKE_PREFIX_PATH="$root" >plain.log 2>&1 || fail "$(cat plain.log)"
  compile_by_pkg_config by_pkg_config
  build_consumer Isam::isam
  for program in "${programs[@]}"; do
    needs_shared_library "$program" || fail "$program runs without the shared library"
  done
  LD_LIBRARY_PATH=$libraries run_and_compare "${programs[@]}"
}

step_static() {
  local program
  fresh "$work/static"
  compile_by_pkg_config by_pkg_config static
  build_consumer Isam::isam_static "$EXTRA_FLAG"
  for program in "${programs[@]}"; do
    if needs_shared_library "$program"; then fail "$program wants the shared library"; fi
  done
  run_and_compare "${programs[@]}"
}

# pages SECTION...: the manual pages of these sections as they are packaged.
pages() {
  local section page
  for section in "$@"; do
    for page in "$source_dir"/man/*."$section"; do
      if [[ $page == */zentra-fleet.1 ]]; then continue; fi  # in the package of Python
      if [ ! -x "$build/zentra" ] && [[ $page =~ /zentra(.*\.1|-keys\.5|-crash\.7)$ ]]; then continue; fi
      if [ -f "$page" ]; then echo "usr/share/man/man$section/${page##*/}.gz"; fi
    done
  done
}

# holds PACKAGE: it has exactly the files that standard input names, and what every package has.
holds() {
  { cat && printf 'usr/share/doc/%s\n' "$1"/{copyright,changelog.gz}; } | sort >expected
  dpkg-deb --fsys-tarfile "$1"_*.deb | tar -t | sed -n 's|^\./\(.*[^/]\)$|\1|p' | sort >contents
  diff expected contents || fail "$1: expected (<) and contents (>) differ"
}

# says PACKAGE FIELD PATTERN
says() {
  local value
  value=$(dpkg-deb --field "$1"_*.deb "$2")
  [[ $value =~ $3 ]] || fail "$1: $2 is '$value'"
}

step_packages() {
  local archive lib=usr/$LIBDIR soname version runtime
  fresh "$work/packages"
  cpack --config "$build/CPackConfig.cmake" -B "$PWD" >cpack.log 2>&1 || fail "$(cat cpack.log)"

  soname=$(readlink "$libraries/libisam.so")
  version=$(readlink "$libraries/$soname")
  runtime=libisam${soname##*.}
  {
    printf 'usr/bin/%s\n' kestro kestroenv isrecover
    if [ -x "$build/zentra" ]; then
      echo usr/bin/zentra
      printf 'usr/share/%s\n' "${completions[@]}"
    fi
    pages 1 5 7 8
  } | holds kestro
  printf '%s\n' "$lib/$soname" "$lib/$version" | holds "$runtime"
  mkdir control
  dpkg-deb --control "$runtime"_*.deb control
  grep -qx 'activate-noawait ldconfig' control/triggers || fail "$runtime has no trigger"
  sed -n 's/^ \(.*\)@Base .*/\1/p' control/symbols | sort >named
  shown_names | diff named - || fail "symbols file (<) and libisam.so (>) differ"
  {
    (cd "$source_dir/include" && printf 'usr/include/%s\n' isam.{h,hpp} isam/*.hpp)
    printf '%s\n' "$lib"/libisam.{a,so} "$lib/pkgconfig/isam.pc"
    printf '%s\n' "$lib"/cmake/Isam/Isam{Config,ConfigVersion,Targets}.cmake
    (cd "$root" && printf "usr/%s\n" "$LIBDIR"/cmake/Isam/IsamTargets-*.cmake)
    printf '%s\n' usr/share/doc/libisam-dev/examples/{accounts.c,customers.c,customers.cpp}
    pages 3
  } | holds libisam-dev

  if [ -d "$build/python" ]; then
    (cd "$source_dir/python/src" && printf 'usr/lib/python3/dist-packages/%s\n' zentra/{*.py,*/*.py,*.pyi,py.typed}) |
      cat - <(cd "$root" && printf 'usr/%s\n' lib/python3/dist-packages/zentra/_zentra.*.so share/man/man1/zentra-fleet.1.gz) |
      holds python3-zentra
    says python3-zentra Depends "python3-numpy.*libisam"
  fi

  version=${version##*.so.}
  says kestro Depends 'libc6'
  says "$runtime" Depends 'libstdc\+\+6'
  says libisam-dev Depends "^$runtime \(= $version\)$"
  for archive in *.deb; do
    says "${archive%%_*}" Version "^$version$"
    dpkg-deb --extract "$archive" extracted
  done
  zcat extracted/usr/share/man/man3/isread.3.gz | grep -q '^\.SH NAME' || fail "isread(3)"
  if type -t lintian >/dev/null; then
    lintian --fail-on error --allow-root ./*.deb >lintian.log || fail "$(grep '^E' lintian.log)"
  fi
  if grep -rl "$source_dir/" extracted; then fail "these name the source folder"; fi
}

step_examples() {
  fresh "$work/examples"
  run_and_compare "$build"/examples/customers_{c,cpp}

  # A copy, a log that begins with it, and a recovery.
  fresh "$work/accounts"
  "$build/examples/accounts" >first
  mkdir copy
  cp accounts.dat accounts.idx copy
  : >changes.log
  "$build/examples/accounts" 1001 1002 30 >moved
  if "$build/examples/accounts" 1001 9999 5 2>refused; then fail "there is no account 9999"; fi
  cp copy/accounts.* .
  "$ISRECOVER" changes.log >report || fail "isrecover ended with $?"
  "$ISRECOVER" -n changes.log | grep -q ': 1 committed, 1 rolled back, 0 unfinished$' || fail "log"
  "$build/examples/accounts" >recovered
  diff moved recovered || fail "the recovery did not bring the accounts up to date"
  if diff -q first moved; then fail "nothing was moved"; fi
}

"step_$step"
