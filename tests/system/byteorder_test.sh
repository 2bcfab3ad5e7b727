#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# byteorder_test BUILD OTHER EMULATOR...: programs of OTHER, built for another processor and run under the emulator, talk over
# a relay with those of BUILD, and are the server of them too. Runs in the sandbox.
set -eu
own=$(cd "$1" && pwd)
other=$(cd "$2" && pwd)
shift 2
emulator=$*
# shellcheck source=tests/system/twobuilds.sh
. "$(dirname "$0")/twobuilds.sh"
head -c 234567 /dev/urandom >"$work/large" # more than a hundred records

# exchange SERVER CLIENT EARLIER: how a program of the server's and of the client's side is run, up to its path; and how many
# faults an earlier server has left.
exchange() {
    # shellcheck disable=SC2086 # one word an argument
    $1/examples/faultd --foreground >"$work/faultd.log" 2>&1 &
    faultd=$!
    # shellcheck disable=SC2086
    $1/tools/relayd --trust-node-names >"$work/relayd.log" 2>&1 &
    relayd=$!
    pids="$pids $faultd $relayd"
    far="unshare --ipc $2/examples/faultctl --host localhost" # where it sees no queue
    # shellcheck disable=SC2086 # one word an argument
    {
        until_true $far list
        [ "$($far list | grep -c "from another order")" -eq "$3" ] || fail "the stored faults were not read"
        $far raise alpha 305419896 "from another order" --attach "$work/large" --option rack=7
        $far list | sed -E 's|[0-9/]{10} [0-9:]{8}|<time>|' >"$work/list"
        $far show alpha 305419896 --save "$work/saved" >/dev/null
        $far exit
    }
    printf 'alpha/305419896\t<time>\tnew\t234567\tfrom another order\n' | diff -u - "$work/list" >&2 || fail "the list differs"
    cmp "$work/large" "$work/saved" || fail "the attachment differs"
    wait $faultd || fail "the server did not end as it was asked to"
    kill $relayd
    wait $relayd 2>/dev/null || true
}

echo "== a server of this host, a client under $1"
exchange "$own" "$emulator $other" 0

echo "== the server and its relay under $1, which finds the faults that were stored, a client of this host"
exchange "$emulator $other" "$own" 1
echo "1 passed, 0 failed"
