#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# check_docs_test SOURCE: scripts/check-docs passes the tree and finds what has no text in a changed copy of it;
# scripts/doc-blocks finds blocks that are not marked as they should be.
# shellcheck disable=SC2016 # the backquotes are those of Markdown
set -eu
source=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "check_docs_test: $*" >&2; exit 1; }
command -v doxygen >/dev/null || { echo "check_docs_test: no doxygen here: skipped" >&2; exit 77; }

mkdir "$work/Misc"
cp -R "$source/docs" "$source/scripts" "$source/examples" "$source/fleet" "$source"/*.md "$work"
cp "$source"/Misc/*.h "$work/Misc"
"$work/scripts/check-docs" || fail "the tree itself is refused"

# change FILE OLD NEW: NEW in the place of OLD, which FILE has.
change() {
    sed "s|$2|$3|" "$work/$1" >"$work/changed"
    cmp -s "$work/changed" "$work/$1" && fail "$1 has no $2"
    cp "$work/changed" "$work/$1"
}
change Misc/misc.h '^#endif$' 'ZELOO_API int TextlessFunction(int a);'
change Misc/dsa.h '^private:$' '    static void textlessMember();'
change Misc/BitFlags.h '^#endif$' 'class ZELOO_API TextlessClass { public: void f(); };'
change Misc/Option.h ' ///< What is set.$' ''
change docs/conventions.md '(architecture.md)' '(nowhere.md)'
"$work/scripts/check-docs" 2>"$work/log" && fail "what has no text is not found"
for name in TextlessFunction textlessMember TextlessClass 'Member Name' nowhere.md; do
    grep -q "$name" "$work/log" || { cat "$work/log" >&2; fail "$name is not found"; }
done

refused() {
    printf %b "$1" >"$work/page.md"
    "$source/scripts/doc-blocks" "$work/page.md" >/dev/null 2>&1 && fail "doc-blocks takes: $1"
    return 0
}
refused '```sh\nls\n```\n'
refused '<!-- run -->\n\ntext\n\n```cpp\nint a;\n```\n'
refused '<!-- run -->\n\ntext\n'
refused '<!-- run: sometimes -->\n```sh\nls\n```\n'
refused '<!-- not run -->\n```sh\nls\n```\n'
refused '<!-- run -->\n```sh\nls\n'
printf 'a\n\n```\ntext\n```\n\n<!-- file: b c -->\n\n```cpp\nint a;\n\nint b;\n```\n' >"$work/page.md"
[ "$("$source/scripts/doc-blocks" "$work/page.md")" = "1 3 text 
2 9 file b c" ] || fail "doc-blocks lists something else"
[ "$("$source/scripts/doc-blocks" "$work/page.md" 2)" = "int a;

int b;" ] || fail "doc-blocks prints something else"
echo "1 passed, 0 failed"
