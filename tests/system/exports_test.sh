#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# exports_test [--update] SHARED STATIC SOURCE: a program sees what the public headers declare, and nothing else. The
# shared library exports the names listed in tests/system/exports.txt; each of them, and each global name of the static
# library that is in none of its namespaces, is marked in a public header or one for programs that move; and everything
# declared there is marked.
#
# --update writes the list anew: `cmake --build --preset default --target update_exports` does it for the plain build.
set -eu
LC_ALL=C
export LC_ALL

update=
if [ "$1" = --update ]; then update=yes; shift; fi
shared=$1 static=$2
[ -f "$shared" ] && [ -f "$static" ]
cd "$3"
list=tests/system/exports.txt
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
code=0
# expect_none TEXT FILE: FILE is empty; TEXT says what its lines are when it is not.
expect_none() {
    [ -s "$2" ] || return 0
    echo "exports_test: $1:" >&2
    sed 's/^/    /' "$2" >&2
    code=1
}

# The names on lines "ADDRESS TYPE NAME", less the compiler's own for 32-bit code. An integer of 64 bits has the name that it
# has where a long is one.
names() { sed -n -e '/ __x86\./d' -e 's/long long/long/g' -e 's/^[0-9a-f]* [A-Za-z] //p' | sort -u; }

nm -DC --defined-only "$shared" | names >"$work/exports"
if [ -n "$update" ]; then cp "$work/exports" $list; fi
nm -gC --defined-only "$static" | names >"$work/globals"

# What is marked: classes, functions and variables, by their plain names (of operators the word "operator").
sed -n -e '/^#/d' -e 's/^\(class\|struct\) ZELOO_API \([A-Za-z0-9_]*\).*/\2/p' \
    -e '/ZELOO_API/ { s/[ (]*SafeArray<.*//; s/^.*[ *&]\(operator\).*/\1/; s/^.*[ *&]\([A-Za-z0-9_]*\)[(;].*/\1/; /^[A-Za-z0-9_]*$/p; }' \
    Misc/*.h >"$work/names"
# In the headers for programs that move: calls, by the names that they have in object files, and variables.
moved=$(find compat/include -name '*.h')
# shellcheck disable=SC2086 # one word a header
sed -n -e '/^#/d' -e 's/.*ZELOO_SVR4_\(CALL\|INSTEAD\)(\([a-z_0-9]*\)).*/zeloo_svr4_\2/p' \
    -e 's/^ZELOO_SVR4_DATA .*[ *]\([a-z_]*\)\(\[\]\)*;/\1/p' $moved >>"$work/names"
sort -u "$work/names" >"$work/marked"

# The plain name that a symbol belongs to: its class, its namespace, or itself.
owners() {
    sed -e 's/^\(vtable\|VTT\|typeinfo\|typeinfo name\|guard variable\) for //' \
        -e 's/^\(non-virtual\|virtual\) thunk to //' \
        -e 's/^\([^(:<]*\) \([A-Za-z0-9_]*\)::/\2::/' -e 's/^\([A-Za-z0-9_]*\).*/\1/' "$1" | paste -d'\t' - "$1"
}
# The symbols in FILE that are neither marked nor OWNER's: unmarked FILE [OWNER...]
unmarked() {
    file=$1
    shift
    for owner; do echo "$owner"; done >"$work/allowed"
    owners "$file" | awk -F'\t' 'FILENAME != "-" { allowed[$1] = 1; next } !($1 in allowed) { print $2 }' \
        "$work/marked" "$work/allowed" -
}

# A program may have a function sigalarm of its own, which the linker takes in place of the library's file; and none
# can take the place of the handler that the waits install. `objects` has a line "FILE TYPE NAME" for each symbol.
nm -AC "$static" 2>/dev/null | sed -E -e '/ __x86\./d' -e 's/^[^:]*:([^:]*):([0-9a-f]{16}|[0-9a-f]{8}| {16}| {8}) /\1 /' >"$work/objects"
awk '$3 == "sigalarm(int)" && $2 != "T" { print; next }
     $2 == "T" { if ($3 == "sigalarm(int)") files[$1] = 1; else others[$1] = others[$1] " " $0 }
     $3 == "zeloo::Interrupt(int)" { handlers = handlers $2 }
     END { for (file in files) { n++; if (file in others) print others[file] }
           if (n != 1) print "defined in " n + 0 " files"
           if (handlers != "t") print "zeloo::Interrupt(int) is of type \"" handlers "\"" }' "$work/objects" >"$work/found"
expect_none 'sigalarm does not stand alone in its file, or the handler of the waits has linkage' "$work/found"

# The variables that a program may define itself, as some do.
awk '$2 ~ /^[TBDR]$/ { if ($3 ~ /^(t_errno|_nderror)$/) files[$1] = 1; else others[$1] = $0 }
     END { for (file in files) { n++; if (file in others) print others[file] }
           if (n != 2) print "defined in " n + 0 " files" }' "$work/objects" >"$work/found"
expect_none 't_errno or _nderror does not stand alone in its file' "$work/found"

unmarked "$work/exports" >"$work/found"
grep '{lambda' "$work/exports" >>"$work/found" || true
expect_none 'exported, but marked in no public header (a private template wants ZELOO_LOCAL)' "$work/found"

unmarked "$work/globals" svr4 zeloo std __gnu_cxx DW >"$work/found" # DW: the compiler's, for exceptions
expect_none 'a name of the inside that a program may have too; it wants a namespace or no linkage' "$work/found"

awk '/^(class|struct) [A-Za-z0-9_]+ *[:{]/ || (/^[a-zA-Z].*[(].*;$/ && !/ZELOO_API|^(static_assert|static|inline|using|typedef)/) ||
     (/^extern / && !/ZELOO_API|^extern template/) { print FILENAME ": " $0 }' Misc/*.h >"$work/found"
expect_none 'declared in a public header, but not marked ZELOO_API' "$work/found"
# shellcheck disable=SC2086
awk '(/^[a-z].*[a-z]\(.*;$/ && !/ZELOO_SVR4_|^typedef/) || (/^extern / && !/^extern "C"/) { print FILENAME ": " $0 }' \
    $moved >"$work/found"
expect_none 'declared in a header for programs that move, but not marked ZELOO_SVR4_CALL or ZELOO_SVR4_DATA' "$work/found"

# Types of private members, as CLASS::TYPE.
awk '/^(class|struct) .*{$/ { class = $3; hidden = $1 == "class" }
     /^(public|protected|private):/ { hidden = $1 == "private:" }
     hidden && /^    (class|struct|enum) [A-Za-z0-9_]+ *[;{:]/ { sub(/[;:{].*/, "", $2); print class "::" $2 }' \
    Misc/*.h >"$work/private"
grep -Fwf "$work/private" "$work/exports" >"$work/found" || true
expect_none 'exported, but it names a private type (it wants ZELOO_LOCAL)' "$work/found"

if ! diff -U0 $list "$work/exports" >"$work/difference"; then
    echo "exports_test: the exports are not those of $list:" >&2
    sed -n -e '/^---/d' -e '/^+++/d' -e 's/^+/    new:  /p' -e 's/^-/    gone: /p' "$work/difference" >&2
    echo "Where that is meant: cmake --build --preset default --target update_exports" >&2
    code=1
fi
[ $code -ne 0 ] || echo "1 passed, 0 failed"
exit $code
