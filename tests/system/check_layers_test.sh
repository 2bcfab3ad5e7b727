#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# check_layers_test SOURCE: plants one fault of each kind in a copy of the tree SOURCE and expects that
# scripts/check-layers fails and names the file, the line and the rule, and nothing else.
set -eu
source=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0

mkdir -p "$work/whole/docs" "$work/whole/scripts"
for folder in Misc compat svr4 tools examples bench tests; do
    cp -R "$source/$folder" "$work/whole"
done
cp "$source/docs/architecture.md" "$work/whole/docs"
cp "$source/scripts/check-layers" "$work/whole/scripts"
"$work/whole/scripts/check-layers" 2>/dev/null | sort >"$work/before" || true

# Begins a case with a fresh copy of the tree.
fresh() {
    rm -rf "$work/tree"
    cp -R "$work/whole" "$work/tree"
    cd "$work/tree"
    : >"$work/expected"
}

# Appends the line TEXT to FILE. `line` is its number then.
plant() {
    mkdir -p "$(dirname "$1")"
    printf '%s\n' "$2" >>"$1"
    line=$(wc -l <"$1")
}

expect() { printf '%s\n' "$1" >>"$work/expected"; }

# Ends a case: the check fails with just the expected lines more.
fails() {
    code=0
    scripts/check-layers >"$work/output" 2>/dev/null || code=$?
    sort "$work/output" | comm -13 "$work/before" - | grep -v '^check-layers: ' >"$work/new" || true
    if [ $code -eq 0 ] || ! sort "$work/expected" | diff - "$work/new"; then
        echo "check_layers_test: $1: exit code $code" >&2
        exit 1
    fi
    passed=$((passed + 1))
}

fresh
plant Misc/Dates.cc '#include "Misc/ipcq.h"'
expect "Misc/Dates.cc:$line: points up from layer \`facts and reports\` to \`ends\` (Misc/ipcq.h)"
plant Misc/detail/paths.h '#  include <Misc/dsa.h>'
expect "Misc/detail/paths.h:$line: points up from layer \`details\` to \`diagnostics and processes\` (Misc/dsa.h)"
fails "an include that points up"

fresh
plant tests/support/assertions.h '#include "bench/two_processes.h"'
expect "tests/support/assertions.h:$line: points sideways, from tests/ to bench/ (bench/two_processes.h)"
fails "an include that points sideways"

fresh
plant svr4/ipc.cc '#include "Misc/detail/text.h"'
expect "svr4/ipc.cc:$line: svr4 knows nothing of Misc (Misc/detail/text.h)"
fails "the host layer includes the library"

fresh
for header in Misc/detail/text.h svr4/signal.h tests/support/testing.h; do
    plant tools/relayd.cc "#include \"$header\""
    expect "tools/relayd.cc:$line: a program includes public headers and its own only ($header)"
done
plant examples/fault.h '#include "Misc/Error/report.h"'
expect "examples/fault.h:$line: a program includes public headers and its own only (Misc/Error/report.h)"
fails "a program includes a private header"

fresh
plant Misc/Dates/inner.h '// private'
plant Misc/Dates.cc '#include "Misc/Dates/inner.h"'
plant Misc/dsa.cc '#include "Misc/Error/report.h"'
plant Misc/dsa.cc '#include "Misc/Dates/inner.h"'
expect "Misc/dsa.cc:$line: a private header of another unit (Misc/Dates/inner.h)"
plant svr4/signal/inner.h '// private'
plant Misc/dsa.cc '#include "svr4/signal/inner.h"'
expect "Misc/dsa.cc:$line: a private header of another unit (svr4/signal/inner.h)"
fails "a private header of another unit"

fresh
plant Misc/dsa.cc '#include "Misc/lockedfile.h"'
expect "Misc/dsa.cc:$line: \`dsa\` includes \`lockedfile\` in a circle of units"
plant Misc/lockedfile.cc '#include "Misc/misc.h"'
expect "Misc/lockedfile.cc:$line: \`lockedfile\` includes \`misc\` in a circle of units"
plant Misc/misc/part.cc '#include "Misc/dsa.h"'
expect "Misc/misc/part.cc:$line: \`misc\` includes \`dsa\` in a circle of units"
fails "units in a circle"

fresh
plant svr4/gmatch.h '#include "svr4/systeminfo.h"'
expect "svr4/gmatch.h:$line: \`svr4/gmatch\` includes \`svr4/systeminfo\` in a circle of units"
plant svr4/systeminfo.cc '#include "svr4/gmatch.h"'
expect "svr4/systeminfo.cc:$line: \`svr4/systeminfo\` includes \`svr4/gmatch\` in a circle of units"
fails "units of the host layer in a circle"

fresh
for unit in unheard detail/unheard wire/unheard svr4/unheard; do
    file=Misc/$unit.cc
    [ "$unit" != svr4/unheard ] || file=$unit.cc
    plant $file '#include <new>'
    expect "$file:1: stands in no layer: docs/architecture.md does not name \`$unit\`"
done
plant unheard/inner.h '// of a folder that has no layer'
expect "unheard/inner.h:1: stands in no layer: docs/architecture.md does not name \`unheard/\`"
fails "a file that stands in no layer"

fresh
page=docs/architecture.md
sed "s/\`lockedfile\`/\`lockedfile\`, \`ghost\`, \`dsa\`/" $page >changed
mv changed $page
line=$(sed -n '/ghost/=' $page)
expect "$page:$line: no file is behind \`ghost\`"
expect "$page:$line: \`dsa\` stands in two places"
fails "a table that differs from the tree"

fresh
plant Misc/misc/part.cc '#include <sys/epoll.h>'
expect "Misc/misc/part.cc:$line: <sys/epoll.h> is not known to System V: that is the business of svr4"
plant Misc/Dates.h '#include <linux/types.h> // for nothing'
expect "Misc/Dates.h:$line: <linux/types.h> is not known to System V: that is the business of svr4"
fails "a header of Linux"

fresh
for file in Misc/dsa.cc Misc/misc/part.h; do
    plant $file '#include <iostream>'
    expect "$file:$line: the streams may not be ready before main: include Misc/detail/standardstreams.h"
done
plant Misc/dsa.h '#include <iostream>'
fails "standard streams that may not be ready"

fresh
plant Misc/dsa.cc '#ifdef __linux__'
expect "Misc/dsa.cc:$line: Misc asks for a host or processor (__linux__): that is the business of svr4"
plant Misc/dsa.cc '#elif defined(ZELOO_NO_ASSERTIONS) && defined(__x86_64__)'
expect "Misc/dsa.cc:$line: Misc asks for a host or processor (__x86_64__): that is the business of svr4"
plant Misc/dsa.cc '#endif'
fails "a condition on the host"

fresh
plant Misc/wire/channels.h '#include <unistd.h>'
expect "Misc/wire/channels.h:$line: layer \`wire\` makes no system call (<unistd.h>)"
plant Misc/records.h '#include "svr4/ipc.h"'
expect "Misc/records.h:$line: layer \`wire\` makes no system call (svr4/ipc.h)"
fails "a system call in the layer of pure computation"

fresh
plant Misc/dsa.cc '#include "../Misc/Dates.h"'
expect "Misc/dsa.cc:$line: \"../Misc/Dates.h\" is no file of the tree"
fails "an include that names no file"

fresh
for file in Misc/Dates.cc svr4/ipc.cc; do
    lines=$(wc -l <$file)
    yes '//' | head -n $((601 - lines)) >>$file
    expect "$file:601: has more than 600 lines"
done
lines=$(wc -l <Misc/dsa.cc)
yes '//' | head -n $((600 - lines)) >>Misc/dsa.cc
fails "a file of more than 600 lines"

echo "$passed passed, 0 failed"
