#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# porting_test BUILD SOURCE: what docs/porting.md prints is true: its Makefile builds the old program, its code compiles,
# its commands run in a sandbox and find what they are for. What changes the host itself is not run.
set -eu
# shellcheck source=tests/system/installed.sh
. "$(dirname "$0")/installed.sh"
LD_LIBRARY_PATH=$libraries
export LD_LIBRARY_PATH
sandbox=$source/scripts/sandbox
"$sandbox" env 2>/dev/null | grep -qx ZELOO_SANDBOX=private || exit 77 # the commands make key files
cp -R "$source/tests/system/old_program" "$work/watch"
cd "$work/watch"

# The blocks of the page, each in a file of its own: 01.make, 02.sh, ...
awk '/^```$/ && file { close(file); file = ""; next }
     /^```[a-z]/ { file = sprintf("%02d.%s", ++n, substr($0, 4)); next }
     /^```/ { inside = !inside; next }
     file { print >file }' "$source/docs/porting.md"

echo "== the Makefile"
sed -n '/^SVR4/,/: watch.h$/p' Makefile | diff - 01.make || fail "the Makefile of the program is another one"
make -f 01.make >/dev/null 2>messages || { cat messages >&2; fail "the Makefile"; }
"$sandbox" timeout 60 ./watch >/dev/null 2>&1 || fail "the program that it makes"

echo "== the code"
for block in *.cpp; do
    ${CXX:-c++} -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c++ "$block" || fail "$block"
done

echo "== the commands"
keys=$(grep -l uniq ./*.sh)
signals=$(grep -l EINTR ./*.sh)
cat >commands <<'COMMANDS'
set -eu
touch /opt/orv/bin/alpha /opt/orv/bin/gamma
ln /opt/orv/bin/alpha /opt/orv/bin/beta # two names for one file have one number
for block in ./*.sh "$1"; do
    if grep -q /etc/ "$block"; then continue; fi
    echo "[$block]"
    { echo 'sudo() { "$@"; }'; cat "$block"; } >run
    sh -eu ./run
done
COMMANDS
"$sandbox" sh commands "$keys" >output 2>&1 || { cat output >&2; fail "a command"; }
# What a block has written; the last one was run twice.
written() { awk -v block="[$1]" '/^\[.*\]$/ { inside = $0 == block; if (inside) n++; next } inside { print n ": " $0 }' output; }
written "$signals" | grep -q '^1: ./sig.C:[0-9]*:.*signal(SIGUSR2, catcher)' || fail "$signals finds no signal"
written "$keys" | sed 's/0x01[0-9a-f]\{6\} //' >shared
printf '1: /opt/orv/bin/%s\n' alpha beta | diff - shared || fail "$keys: not the files that share a key, until one is copied"

echo "== the keys are those of ftok"
cat >key.cc <<'PROGRAM'
#include <cstdio>
#include <sys/ipc.h>
int main(int argc, char** argv)
{
    for (int i = 1; i < argc; i++)
        std::printf("0x%08x %s\n", static_cast<unsigned>(ftok(argv[i], 1)), argv[i]);
}
PROGRAM
${CXX:-c++} key.cc -o key
sed "s,/opt/orv/bin,$work/watch,; s/ | uniq.*//" "$keys" >listing
sh ./listing >"$work/listed"
./key "$work"/watch/* | sort | diff - "$work/listed" || fail "$keys: other keys"
echo "1 passed, 0 failed"
