#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# wordsizes_test BUILD OTHER: programs of two builds, one of 32 and one of 64 bits, understand each other: on a queue, over
# a relay, and in the files that they leave. Each is tried as the server of the other. Runs in the sandbox.
set -eu
one=$(cd "$1" && pwd)
other=$(cd "$2" 2>/dev/null && pwd) || { echo "wordsizes_test: no build in $2: skipped"; exit 77; }

programs="examples/hello_server examples/hello_client examples/faultd examples/faultctl tools/relayd"
for program in $programs; do
    [ -x "$other/$program" ] || { echo "wordsizes_test: no $program in $2: skipped"; exit 77; }
done
bits() { od -An -tu1 -j4 -N1 "$1" | tr -d ' '; } # 1: 32 bits, 2: 64
if [ "$(bits "$one/tools/relayd")" = "$(bits "$other/tools/relayd")" ]; then
    echo "wordsizes_test: both builds are of one word size: skipped"
    exit 77
fi

# shellcheck source=tests/system/twobuilds.sh
. "$(dirname "$0")/twobuilds.sh"
data=/var/orv/data
# expect WHAT ACTUAL: compares standard input with what a program gave.
expect() { cat >"$work/expected"; diff -u "$work/expected" "$2" >&2 || fail "$1"; }
without_times() { sed -E 's|[0-9]{2}/[0-9]{2}/[0-9]{4} [0-9:]{8}|<time>|g' "$1"; }
queue_is_there() { "$@" list >/dev/null; }
is_gone() { ! [ -e "/proc/$1" ]; }

touch /opt/orv/bin/hello
head -c 1234567 /dev/urandom >"$work/large" # hundreds of blocks

# start_faultd BUILD: in the foreground, as $faultd.
start_faultd() {
    "$1/examples/faultd" --foreground >"$work/faultd.log" 2>&1 &
    faultd=$!
    pids="$pids $faultd"
    until_true queue_is_there "$1/examples/faultctl"
}
# reported_labels FILE: the lines of a crash file's report without what differs from one crash to the next.
reported_labels() { sed -nE -e 's/^(u_ar0\[[A-Z]+\]=)[0-9a-f]{8,}$/\1/p' -e '/^Dynamic link:/p' -e '/^Monitored Objects/p' "$1"; }

pair() {
    server=$1 client=$2
    echo "== a server of $(($(bits "$server/tools/relayd") * 32)) bits, a client of the other word size"

    "$server/examples/hello_server" &
    hello=$!
    pids="$pids $hello"
    greet() { "$client/examples/hello_client" you >"$work/greeting"; }
    until_true greet
    echo "Hello, you!" | expect "a greeting" "$work/greeting"
    kill -KILL $hello
    wait $hello 2>/dev/null || true
    "$client/examples/hello_client" 2>/dev/null && fail "a killed server was not noticed" # and its queue is removed

    start_faultd "$server"
    "$client/examples/faultd" 2>"$work/refused" && fail "a second faultd was not refused"
    echo "faultd: another faultd is running: $data/faultd.lock holds its process id" | expect "the lock" "$work/refused"
    ctl="$client/examples/faultctl"
    "$ctl" raise alpha 2147483647 "the largest" --attach "$work/large" --option rack=7
    "$ctl" raise beta 0 ""
    "$ctl" move alpha 2147483647 working
    "$ctl" list >"$work/list"
    without_times "$work/list" >"$work/timeless"
    printf 'alpha/2147483647\t<time>\tworking\t1234567\tthe largest\nbeta/00000000\t<time>\tnew\t0\t\n' |
        expect "a list" "$work/timeless"
    "$ctl" show alpha 2147483647 --save "$work/saved" >"$work/shown"
    cmp "$work/large" "$work/saved" || fail "an attachment over the queue"
    "$ctl" run beta 0 'seq 200000' >"$work/numbers"
    seq 200000 | expect "the output of a command" "$work/numbers"

    echo "== over a relay of either kind"
    for relay in "$server" "$client"; do
        "$relay/tools/relayd" --trust-node-names >"$work/relayd.log" 2>&1 &
        relayd=$!
        pids="$pids $relayd"
        far="unshare --ipc $ctl --host localhost" # where it sees no queue
        # shellcheck disable=SC2086 # one word an argument
        {
            until_true queue_is_there $far
            $far raise gamma 1 "from afar" --attach "$work/large"
            $far show gamma 1 --save "$work/saved" >/dev/null
            cmp "$work/large" "$work/saved" || fail "an attachment over the relay"
            $far clear gamma 1
            $far list | cmp "$work/list" - || fail "a list over the relay"
        }
        kill $relayd
        wait $relayd 2>/dev/null || true
    done

    echo "== the files that a crashed server leaves"
    kill -SEGV "$faultd"
    wait "$faultd" 2>/dev/null || true
    reported_labels $data/faultd.sig >"$work/labels.$(bits "$server/tools/relayd")"
    start_faultd "$client" # which finds a lock, a queue and faults of the other
    "$server/examples/faultctl" list | cmp "$work/list" - || fail "the faults that another word size wrote"
    "$server/examples/faultctl" show alpha 2147483647 --save "$work/saved" >"$work/shown.again"
    cmp "$work/shown" "$work/shown.again" || fail "a fault that another word size wrote"
    cmp "$work/large" "$work/saved" || fail "a fault that another word size wrote"
    "$server/examples/faultctl" exit
    until_true is_gone "$faultd"
    [ ! -e $data/faultd.lock ] || fail "the lock was left behind"
    find $data -name '*.broken*' | grep . && fail "a file was set aside"
    rm -rf $data/faults $data/faultd.*
}

pair "$one" "$other"
pair "$other" "$one"
cmp "$work/labels.1" "$work/labels.2" || fail "the lines of the crash files differ"
[ "$(grep -c 'u_ar0' "$work/labels.1")" -eq 19 ] || fail "registers are missing from the crash file"
echo "1 passed, 0 failed"
