#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# interface_test SOURCE: what a user's unit meets in the public headers, with every compiler that is here. It compiles,
# without a warning, what programs have always written (interface/old_program.cc) and what has no second meaning
# (interface/new_program.cc), on 64 and, where the compiler can, 32 bits; a typed comparison is called as what it is.
set -eu
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
warnings="-Wall -Wextra -Wpedantic -Wshadow -Werror"
ls Misc/*.h >"$work/headers"
fail() { echo "interface_test: $*" >&2; exit 1; }

compilers=${CXX:-c++}
! command -v clang++ >/dev/null || compilers="$compilers clang++"
for compiler in $compilers; do
    for width in -m64 -m32; do
        compile="$compiler $width $warnings -I. -fsyntax-only -x c++"
        echo '#include <cstddef>' | $compile - 2>/dev/null || continue # the headers of this width are not installed
        echo "== $compiler $width"
        sed 's/.*/#include "&"/' "$work/headers" | $compile -std=c++17 - || fail "the headers, $compiler $width"
        $compile -std=c++17 tests/system/interface/old_program.cc || fail "what compiled before, $compiler $width"
        for standard in c++17 c++20; do
            $compile -std=$standard tests/system/interface/new_program.cc || fail "$standard, $compiler $width"
        done
    done
done

sanitize="clang++ -std=c++17 -fsanitize=function -fno-sanitize-recover=all -I."
if echo 'int main() {}' | $sanitize -x c++ - -o "$work/none" 2>/dev/null; then
    echo "== typed searches call their comparison through its own type"
    $sanitize tests/system/interface/searches.cc Misc/SafeArray.cc -o "$work/searches"
    "$work/searches" || fail "a comparison called as what it is not"
fi
echo "1 passed, 0 failed"
