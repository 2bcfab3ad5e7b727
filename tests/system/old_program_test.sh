#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# old_program_test BUILD SOURCE: installs BUILD into a new prefix and builds a program in the style of System V on it,
# with the program's own Makefile (old_program/): calls of its own that this host lacks or means otherwise, beside the
# library's. It compiles unchanged and without a warning, with every compiler that is here, shared and static, and says
# what it said there.
set -eu
# shellcheck source=tests/system/installed.sh
. "$(dirname "$0")/installed.sh"
LD_LIBRARY_PATH=$libraries
export LD_LIBRARY_PATH
sandbox=$source/scripts/sandbox
"$sandbox" true || exit 77

cp -R "$source/tests/system/old_program" "$work/watch"
cd "$work/watch"
sed "s/NODE/$(uname -n)/; s/RELEASE/$(uname -r)/; s/MACHINE/$(uname -m)/" expected.txt >expected

# builds_and_runs WHAT MAKE-ARGUMENT...
builds_and_runs() {
    what=$1
    shift
    echo "== $what"
    make clean >/dev/null
    make "$@" >/dev/null 2>messages || { cat messages >&2; fail "$what: does not compile"; }
    [ ! -s messages ] || { cat messages >&2; fail "$what: warnings"; }
    code=0
    "$sandbox" timeout 60 ./watch >output 2>errors || code=$?
    [ $code -eq 0 ] || { cat output errors >&2; fail "$what: exit code $code"; }
    diff expected output || fail "$what: says something else"
    echo '/dev/starlan: Invalid transport provider name' | diff - errors || fail "$what: explains something else"
}

builds_and_runs "${CXX:-c++}, shared" CXX="${CXX:-c++}"
builds_and_runs "${CXX:-c++}, static" CXX="${CXX:-c++}" LDLIBS="$(find "$prefix" -name libzeloo.a)"
case ${CXX:-c++} in *" -m32") width=" -m32" ;; *) width= ;; esac
if command -v clang++ >/dev/null; then
    builds_and_runs "clang++$width, shared" CXX="clang++$width" CC="clang$width"
fi

echo "== every header compiles alone and behind the host's, in C and C++, and so do the library's behind them"
flags="$(pkg-config --cflags zeloo-svr4) -Wall -Wextra -Wpedantic -Werror -fsyntax-only"
cd "$prefix/include/zeloo-svr4"
for header in *.h sys/*.h; do
    echo "#include <$header>" >"$work/header.cc"
    cat "$work/header.cc" "$work/header.cc" >"$work/header.c"
    for compiler in "${CXX:-c++}" "clang++$width"; do
        command -v "${compiler%% *}" >/dev/null || continue
        # shellcheck disable=SC2086 # one word a flag
        $compiler -std=c++17 $flags "$work/header.cc" || fail "$header, $compiler"
    done
    case $header in iostream.h | fstream.h | iomanip.h) continue ;; esac
    for standard in gnu17 c17 gnu89 c89; do
        # shellcheck disable=SC2086
        ${CC:-cc} -std=$standard $flags "$work/header.c" || fail "$header, C of $standard"
    done
done
for header in *.h sys/*.h; do echo "#include <$header>"; done >"$work/all.cc"
(cd "$prefix/include/zeloo" && for header in Misc/*.h; do echo "#include \"$header\""; done) >>"$work/all.cc"
# shellcheck disable=SC2086
${CXX:-c++} -std=c++17 $flags "$work/all.cc" || fail "all headers"

echo "== find_package: zeloo::svr4 is the library with these headers"
mkdir "$work/project"
cd "$work/project"
cat >CMakeLists.txt <<'PROJECT'
cmake_minimum_required(VERSION 3.16)
project(watch CXX C)
set(CMAKE_CXX_STANDARD 17)
find_package(zeloo REQUIRED)
foreach(kind svr4 svr4_static)
  add_executable(watch_${kind} main.cc)
  target_link_libraries(watch_${kind} PRIVATE zeloo::${kind})
endforeach()
PROJECT
cat >main.cc <<'PROGRAM'
#include <csignal>
#include <tiuser.h>
#include "Misc/cstring.h"
static void Handle(int) {}
int main()
{
    struct sigaction action = {};
    std::signal(SIGUSR2, Handle);
    sigaction(SIGUSR2, nullptr, &action);
    const bool isOneShot = (action.sa_flags & SA_RESETHAND) != 0;
    return isOneShot && t_open("/dev/none", 0, 0) == -1 && t_errno == TBADNAME && CString("x") == "x" ? 0 : 1;
}
PROGRAM
cmake -S . -B build -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build build >/dev/null
for kind in svr4 svr4_static; do build/watch_$kind || fail "zeloo::$kind"; done
echo "1 passed, 0 failed"
