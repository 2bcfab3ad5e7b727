#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# installed.sh BUILD SOURCE: for the tests that use what is installed to read (`.`). BUILD goes into the new prefix $prefix,
# where pkg-config finds it, with the shared library in $libraries. $source and the empty $work are for the test.
# shellcheck disable=SC2034
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/usr
fail() { echo "$(basename "$0" .sh): $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zeloo.pc)")
libraries=$(dirname "$(find "$prefix" -name libzeloo.so)")
export PKG_CONFIG_PATH
