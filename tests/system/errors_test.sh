#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# errors_test SOURCE: docs/errors.md has every error type of Misc/Error.h with its number and the text that the library
# prints, in order and nothing else; each with a cause and what helps. So it has the reasons why a queue failed.
set -eu
source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "errors_test: $*" >&2; exit 1; }

awk '/enum ErrorType/ { inside = 1; next }
     inside && /}/ { exit }
     inside { gsub(/[ ,]/, ""); sub(/\/\/.*/, ""); n++
              if (split($0, part, "=") == 2) n = part[2]
              print n, part[1] }' "$source/Misc/Error.h" >"$work/types"
awk '/Messages\[\] = / { inside = 1; next }
     inside && /^};/ { exit }
     inside && /Reserved,/ { print "This error code is reserved" }
     inside && /"/ { sub(/^ *"/, ""); sub(/",?$/, ""); print }' "$source/Misc/Error/Error.cc" >"$work/texts"
[ "$(wc -l <"$work/types")" -eq 84 ] || fail "cannot read the numbers of Misc/Error.h"

{ echo NOT_SPECIFIED; cat "$work/texts"; } | paste -d ' ' "$work/types" - >"$work/expected"
sed -n 's|^        \([A-Za-z0-9_]*\).*///< \([1-9][0-9]*\): \(.*\)|\2 \1 \3|p' "$source/Misc/Error.h" >"$work/comments"
sed 1d "$work/expected" | diff "$work/comments" - || fail "the comments in Misc/Error.h say something else than the library"
awk -F ' [|] ' '/^[|] number [|] name/ { inside = 1 }
     inside && /^[|] [0-9]/ { sub(/^[|] /, "", $1); gsub(/`/, "", $2); print $1, $2, $3
                              if (NF != 5 || length($4) < 5) print "no cause or cure:", $1 }' "$source/docs/errors.md" |
    diff "$work/expected" - || fail "docs/errors.md and Misc/Error.h differ"
# shellcheck disable=SC2016 # code marks
sed -n 's/^    case \(E[A-Z]*\): return "\(.*\)";/| `\1` | \2 |/p' "$source/Misc/ipcq/resources.cc" >"$work/reasons"
[ -s "$work/reasons" ] || fail "cannot read the reasons of Misc/ipcq/resources.cc"
while read -r reason; do
    grep -qF "$reason" "$source/docs/errors.md" || fail "docs/errors.md has no row $reason"
done <"$work/reasons"
echo "1 passed, 0 failed"
