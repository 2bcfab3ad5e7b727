#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# twobuilds.sh: for the tests in which programs of two builds talk, to read (`.`) in the sandbox. What is noted in $pids ends
# with the test, as does the empty $work; faultd's queue and port have their names.
# shellcheck disable=SC2034
name=$(basename "$0" .sh)
[ "${ZELOO_SANDBOX:-}" = private ] || { echo "$name: no sandbox of its own: skipped"; exit 77; }

work=$(mktemp -d)
pids=
cleanup() {
    for pid in $pids; do kill "$pid" 2>/dev/null || true; done
    for pid in $pids; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "$name: $*" >&2
    for log in "$work"/*.log; do [ ! -e "$log" ] || cat "$log" >&2; done
    exit 1
}
until_true() {
    for _ in $(seq 300); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    fail "still not so after 300 tries: $*"
}

touch /opt/orv/bin/orvd
echo "orvd 4711/tcp" >>/etc/services
echo "$(uname -n) full" >/var/orv/data/orvnodes.dat
