#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# package_test BUILD SOURCE: installs BUILD into a new prefix and uses it as a new user would: every public header
# compiles alone, CMake's find_package and pkg-config both lead to a program that runs, and the programs printed in
# README.md are the ones in examples/.
set -eu
# shellcheck source=tests/system/installed.sh
. "$(dirname "$0")/installed.sh"
compiler="${CXX:-c++} -std=c++17 -Wall -Wextra -Wpedantic -Werror"

echo "== every public header compiles alone"
cd "$prefix/include/zeloo"
for header in Misc/*.h; do
    echo "#include \"$header\"" | $compiler -I. -fsyntax-only -x c++ - || fail "$header does not compile alone"
done

echo "== headers keep their internals and namespaces to themselves"
if grep -n 'using namespace' Misc/*.h; then fail "a header drags in a namespace"; fi
if find . -mindepth 2 -type d | grep .; then fail "private headers are installed"; fi

echo "== docs/classes.md names every public class with its header, and nothing else"
awk '{ sub(/^(class|struct) ZELOO_API/, "class") }
     /^(class|enum) [A-Za-z_]+ [:{]/ { print $2, FILENAME }' Misc/*.h | sort -u >"$work/declared"
sed -n 's/^| `\([A-Za-z_]*\)` | `\(Misc\/[A-Za-z]*\.h\)` |.*/\1 \2/p' "$source/docs/classes.md" >"$work/listed"
sort "$work/listed" | diff "$work/declared" - || fail "docs/classes.md and the headers differ"

echo "== find_package: the examples build on the installed library"
cmake -S "$source/examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
"$work/examples/faultctl" --help >/dev/null

echo "== find_package: fleet/ builds on the installed library, where the client library of its engine is"
if ! grep -q '^NATS_LIBRARY:.*=/' "$build/CMakeCache.txt"; then
    echo "without libnats-dev here: not built"
else
    cmake -S "$source/fleet" -B "$work/fleet" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug >/dev/null
    cmake --build "$work/fleet" >/dev/null
    "$work/fleet/faultgate" --help >/dev/null
    ninja -C "$work/fleet" -t deps | grep '/Misc/' >"$work/headers"
    ! grep -v '/include/zeloo/Misc/' "$work/headers" || fail "fleet/ sees more of the library than is installed"
fi

echo "== pkg-config: a program built by hand runs"
# shellcheck disable=SC2046 # one word a flag
$compiler "$source/examples/hello_client.cc" -o "$work/hello_client" $(pkg-config --cflags --libs zeloo)
LD_LIBRARY_PATH=$libraries "$work/hello_client" >/dev/null 2>&1 && fail "hello_client found a server where none runs"

echo "== within another project: it installs nothing unless wanted, and is static or shared as that project says"
mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(outer LANGUAGES CXX)
include(FetchContent)
FetchContent_Declare(zeloo SOURCE_DIR "$source")
FetchContent_MakeAvailable(zeloo)
add_executable(client "$source/examples/hello_client.cc")
target_link_libraries(client PRIVATE zeloo::zeloo)
install(TARGETS client)
END
outer=$work/outer
# within_project LIBRARY OPTION...: configured like this a program of the project is linked to LIBRARY, and nothing is
# built but that and the library. What the build would give need not be there for that.
within_project() {
    library=$1
    shift
    rm -rf "$outer"
    cmake -S "$work/project" -B "$outer" -G Ninja "$@" >/dev/null
    ninja -C "$outer" -t commands client | tail -n 1 | grep -q " [^ ]*/$library " || fail "no $library with \"$*\""
    ninja -C "$outer" -t targets all | grep -E '^[^:/]*(relayd|faultd|_test):' && fail "programs that nobody asked for"
    return 0
}
within_project 'libzeloo\.so[.0-9]*' -DBUILD_SHARED_LIBS=ON
within_project 'libzeloo\.a' -DBUILD_SHARED_LIBS=OFF
within_project 'libzeloo\.a'
cp "$work/hello_client" "$outer/client"
cmake --install "$outer" --prefix "$work/stage" >/dev/null
[ "$(cd "$work/stage" && find . ! -type d)" = ./bin/client ] || fail "it installs something: $(find "$work/stage")"
cmake -S "$work/project" -B "$outer" -DZELOO_INSTALL=ON >/dev/null
touch "$outer/_deps/zeloo-build/Misc/libzeloo.a"
cmake --install "$outer" --component development --prefix "$work/stage" >/dev/null
find "$work/stage" -name 'zelooTargets-*.cmake' | grep -q . || fail "it does not install itself when that is wanted"

echo "== orvcrash runs and has its page"
"$prefix/bin/orvcrash" --help >/dev/null
test -s "$prefix/share/man/man1/orvcrash.1" || fail "orvcrash has no page"

echo "== gdb finds the printers for the library where that is installed"
library=$(readlink -f "$libraries/libzeloo.so")
printers=$prefix/share/gdb/auto-load$library-gdb.py
test -s "$printers" || fail "no $printers"
cmp "$printers" "$prefix/share/zeloo/gdb/zeloo.py" || fail "the printers differ"
if command -v gdb >/dev/null; then
    HOME=$work gdb -nx -batch -ex "set auto-load scripts-directory $prefix/share/gdb/auto-load" \
        -ex "set auto-load safe-path $prefix/share/gdb/auto-load" -ex "file $library" -ex "info pretty-printer" \
        >"$work/printers" 2>&1
    grep -q '^ *zeloo$' "$work/printers" || { cat "$work/printers"; fail "gdb does not load the printers"; }
else
    echo "without gdb here: the file only"
fi

echo "== README.md prints the programs of examples/"
block=0
for program in hello_server hello_client; do
    block=$((block + 1))
    awk -v want=$block '/^```$/ { inside = 0 } inside { print } /^```cpp$/ { inside = (++seen == want) }' \
        "$source/README.md" >"$work/$program.cc"
    sed '/SPDX/d' "$source/examples/$program.cc" | cmp "$work/$program.cc" - || fail "README.md and examples/$program.cc differ"
done
echo "1 passed, 0 failed"
