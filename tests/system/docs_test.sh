#!/bin/sh
# SPDX-License-Identifier: BSD-2-Clause
# docs_test [--full [--root DIRECTORY]] BUILD SOURCE [PAGE...]: does what the pages say, word for word (scripts/doc-blocks tells how their
# blocks are marked), each page from its beginning to its end in a shell of a user without rights who may use sudo, in a
# root of its own: a copy of this one over which nothing of zeloo lies, with queues, network and processes of its own.
#
# All pages begin where step 2 of README.md ends: BUILD is installed, and the tree's build/examples and build/fleet have their
# programs. With --full README.md begins before that and builds; it takes minutes. With --root the copies are of another
# root than this host's, such as a bare one with what README.md names: debootstrap --variant=minbase
# --include=mount,sudo,g++,cmake,ninja-build,pkg-config,procps bookworm DIRECTORY.
set -eu

complain() { echo "docs_test: $*" >&2; }
fail() { complain "$@"; exit 1; }

# A reader sleeps a moment until what he has started is ready. On a busy machine a moment may not be enough: here it
# lasts until no process of the page has had anything to do for a second, and a minute at most.
write_sleep() {
    cat <<'END'
sleep() {
    quiet=0
    for _ in $(seq 600); do
        command sleep 0.1
        quiet=$((quiet + 1))
        for process in /proc/[0-9]*; do
            if [ "$process" = /proc/$$ ] || ! read -r stat 2>/dev/null <"$process/stat"; then continue; fi
            stat=${stat##*) }
            case $stat in R*|D*) quiet=0 ;; esac
        done
        if [ $quiet -ge 10 ]; then return; fi
    done
}
END
}

# The commands of PAGE as one script; what its blocks are to print lies beside it.
script_of() {
    page=$1
    echo 'where="its beginning"'
    echo '. /pages/sleep'
    echo "trap '[ \$? -eq 0 ] || echo \"docs_test: $page: failed at \$where\" >&2' EXIT"
    "$blocks" "$source/$page" | while read -r number line kind argument; do
        case $kind,$argument in
        run,build) [ "$full" = yes ] || continue ;;
        run,*|file,*|output,*) ;;
        *) continue ;;
        esac
        echo "where='line $line'"
        "$blocks" "$source/$page" "$number" >"$work/pages/block.$number"
        case $kind in
        file) echo "cp /pages/block.$number '$argument'" ;;
        run)
            echo "echo '== $page:$line' >&2"
            if [ "$argument" = second ]; then
                echo "sudo /pages/on_second /pages/block.$number >/pages/printed"
            else
                echo "{"
                cat "$work/pages/block.$number"
                echo "} >/pages/printed"
            fi ;;
        output) echo "diff /pages/block.$number /pages/printed >&2" ;;
        esac
    done
}

# The host `second`, 192.0.2.2, with a name, a network and queues of its own; this one becomes `first`, 192.0.2.1.
second_host() {
    hostname first
    unshare --net --uts --ipc sh -c 'hostname second; exec sleep 3600' &
    second=$!
    echo '127.0.0.1 localhost' >"$root/etc/hosts"
    while [ "$(nsenter --uts --target $second hostname)" != second ]; do sleep 0.1; done
    ip link add veth type veth peer name veth netns $second
    ip address add 192.0.2.1/24 dev veth
    ip link set veth up
    nsenter --net --target $second sh -c '
        ip address add 192.0.2.2/24 dev veth
        ip link set veth up
        ip link set lo up'
    echo "192.0.2.1 first" >>"$root/etc/hosts"
    cat >"$work/pages/on_second" <<END
#!/bin/sh
exec nsenter --net --uts --ipc --target $second setpriv --reuid reader --regid reader --init-groups \
    env HOME=/home/reader USER=reader bash -euc 'cd ~/zeloo && . /pages/sleep && . "\$1"' bash "\$1"
END
    chmod 755 "$work/pages/on_second"
}

# As root of new namespaces: the new root, and in it the script.
inside() {
    page=$1
    mount -t tmpfs -o size=2g tmpfs "$work/mount"
    mkdir "$work/mount/changes" "$work/mount/scratch" "$work/mount/root"
    root=$work/mount/root
    mount -t overlay -o "lowerdir=$lower,upperdir=$work/mount/changes,workdir=$work/mount/scratch" overlay "$root" ||
        { complain "no overlay of the root here: skipped"; exit 77; }
    rm -rf "$root/opt/orv" "$root/var/orv" "$root/usr/local/include/zeloo"
    find "$root/usr/local" -name '*zeloo*' -delete 2>/dev/null || true
    mount -t proc proc "$root/proc"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    for node in null zero full random urandom tty; do
        touch "$root/dev/$node" && mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir -m 1777 "$root/dev/shm"
    ln -s /proc/self/fd "$root/dev/fd"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    ip link set lo up
    second_host

    chroot "$root" useradd --create-home --shell /bin/sh reader
    echo 'reader ALL=(ALL) NOPASSWD: ALL' >"$root/etc/sudoers.d/reader"
    tree=$root/home/reader/zeloo
    mkdir -p "$tree" "$root/pages"
    (cd "$source" && tar -cf - --exclude='./build*' --exclude=./.git .) | tar -xf - -C "$tree" --no-same-owner
    if [ "$full" = no ] || [ "$page" != README.md ]; then
        DESTDIR=$root cmake --install "$build" --prefix /usr/local >/dev/null
        for programs in examples fleet; do
            mkdir -p "$tree/build/$programs"
            for program in "$build/$programs"/*; do
                if [ -f "$program" ] && [ -x "$program" ]; then cp "$program" "$tree/build/$programs"; fi
            done
        done
        chroot "$root" ldconfig
    fi
    write_sleep >"$work/pages/sleep"
    script_of "$page" >"$work/pages/script"
    cp -p "$work/pages"/* "$root/pages"
    chroot "$root" chown -R reader:reader /home/reader /pages
    # Not chroot, in which nobody may make namespaces.
    cd "$root"
    mkdir .host
    pivot_root . .host
    umount -l .host
    cd /
    setpriv --reuid reader --regid reader --init-groups env -i HOME=/home/reader USER=reader LANG=C.UTF-8 \
        PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin \
        bash -euc 'cd ~/zeloo && . /pages/script' </dev/null
}

full=no
lower=/
if [ "$1" = --full ]; then full=yes; shift; fi
if [ "$1" = --root ]; then lower=$2; shift 2; fi
if [ "${ZELOO_DOCS_TEST:-}" = inside ]; then
    build=$1 source=$2 work=$3
    blocks=$source/scripts/doc-blocks
    inside "$4"
    exit
fi

build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
shift 2
blocks=$source/scripts/doc-blocks
cd "$source"
if [ $# -eq 0 ]; then
    set -- *.md docs/*.md examples/*.md fleet/*.md
fi
work=$(mktemp -d)
: >"$work/missing"
trap 'rm -rf "$work"' EXIT

echo "== every block is marked; those that are not run here are whole, and what they need is there"
for page in "$@"; do
    "$blocks" "$page" >"$work/list" || fail "$page: blocks without a mark"
    while read -r number line kind argument; do
        case $kind in
        run-by) [ -e "${argument%% *}" ] || fail "$page:$line: there is no $argument" ;;
        not-run)
            "$blocks" "$page" "$number" >"$work/block"
            sh -n "$work/block" || fail "$page:$line: no commands of a shell"
            sed -n 's/^sudo apt-get install -y //p' "$work/block" | tr ' ' '\n' | while read -r package; do
                dpkg-query -W "$package" >/dev/null 2>&1 || echo "$page needs the package $package" >>"$work/missing"
            done ;;
        esac
    done <"$work/list"
done

if [ "$(id -u)" -ne 0 ] || ! unshare --mount --ipc --net --uts --pid --fork true 2>/dev/null; then
    complain "running the blocks needs root, who may make namespaces and a user without rights: skipped"
    exit 77
fi
command -v sudo >/dev/null || { complain "no sudo here: skipped"; exit 77; }

# All at once: they mostly wait. Each leaves its exit code.
run_page() {
    option=
    [ "$full" = no ] || option=--full
    code=0
    begin=$(date +%s)
    ZELOO_DOCS_TEST=inside timeout 1200 unshare --mount --ipc --net --uts --pid --fork --kill-child --mount-proc \
        "$0" $option --root "$lower" "$build" "$source" "$work/$2" "$1" >"$work/$2/log" 2>&1 || code=$?
    if [ "$1" = README.md ] && grep 'Total Error Count' "$work/$2/log"; then
        code=1 # the first server of a reader starts without a report
    fi
    echo $(($(date +%s) - begin)) >"$work/$2/seconds"
    echo $code >"$work/$2/code"
}
chmod 755 "$work"
number=0
: >"$work/pages"
for page in "$@"; do
    "$blocks" "$page" | grep -qE ' (run|file) ' || continue
    if [ "${page%%/*}" = fleet ] && ! [ -x "$build/fleet/faultgate" ]; then
        echo "$page needs a build with fleet/" >>"$work/missing"
    fi
    if grep "^$page needs" "$work/missing"; then
        echo "skipped: $page"
        continue
    fi
    number=$((number + 1))
    mkdir -p "$work/$number/pages" "$work/$number/mount"
    echo "$page $number" >>"$work/pages"
    run_page "$page" $number &
done
wait

failures=0
while read -r page number; do
    case $(cat "$work/$number/code") in
    0) echo "passed: $page ($(cat "$work/$number/seconds") s)" ;;
    77) cat "$work/$number/log"; exit 77 ;;
    *) cat "$work/$number/log"; echo "FAILED: $page"; failures=$((failures + 1)) ;;
    esac
done <"$work/pages"
echo "$(($(wc -l <"$work/pages") - failures)) passed, $failures failed"
[ $failures -eq 0 ]
