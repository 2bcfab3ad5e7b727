#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# man_test BUILD SOURCE: every program that is built for use has a manual page, which groff takes without a warning and
# which names every option and command that its --help does.
set -eu
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "man_test: $*" >&2; exit 1; }
command -v groff >/dev/null || { echo "man_test: no groff here: skipped" >&2; exit 77; }

checked=0
for program in "$build"/tools/* "$build"/examples/* "$build"/fleet/* "$source/fleet/credentials"; do
    if ! [ -f "$program" ] || ! [ -x "$program" ]; then continue; fi
    name=${program##*/}
    [ "$name" != credentials ] || name=faultcredentials # as which it is installed
    page=$(find "$source/docs" "$source/tools" "$source/examples" -name "$name.[1-9]")
    [ -n "$page" ] || fail "$name has no manual page"
    groff -k -man -ww -rHY=0 -Tutf8 -P -cbou "$page" >"$work/page" 2>"$work/warnings" || fail "$page"
    [ ! -s "$work/warnings" ] || { cat "$work/warnings" >&2; fail "$page: groff warns"; }
    case $name in hello_*) checked=$((checked + 1)); continue ;; esac # they have no options
    "$program" --help >"$work/help"
    sed 's/‐/-/g; s/−/-/g' "$work/page" >"$work/text"
    { grep -oE -e '--[a-z-]+' "$work/help"
      sed -n '/^Commands:/,/^Exit/s/^  \([a-z][a-z]*\).*/\1/p' "$work/help"
    } | sort -u | while read -r word; do
        grep -qwF -e "$word" "$work/text" || fail "$page does not name $word"
    done
    checked=$((checked + 1))
done
[ $checked -gt 0 ] || fail "no programs in $build"
echo "$checked passed, 0 failed"
