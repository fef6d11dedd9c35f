#!/usr/bin/env bash
# Runs autopkgtest, the DEP-8 tests of debian/tests, in a throwaway testbed that holds a minimal Debian 12
# (mmdebstrap --variant=apt: the essential packages and apt) and nothing more but what autopkgtest installs
# for the tests: the packages under test and the tests' declared Depends. A program the tests run and do
# not declare is missing there, as on a user's system.
#   scripts/testbed.sh AUTOPKGTEST-ARG...    e.g. --no-built-binaries ./ dist/kepclient_*.deb ...
# The testbed comes from bookworm's main suite on the mirror this machine's apt uses, and is kept in the
# user's cache directory, named by a hash of what makes it (the mmdebstrap call below, mirror included);
# it is made again when that changes, and older ones go. Each run works on an overlay copy of it, gone
# with the run; autopkgtest brings its package lists up to date first.
#
# autopkgtest's chroot server runs the tests, inside namespaces of this script's own (mount, PID, IPC,
# UTS) with their own /proc, /sys, /dev/pts, /dev/shm and /run: the testbed gets what a container's
# holds, and when the run ends, however it ends, its mounts go and its processes are killed. That is
# what autopkgtest's unshare server does too, from an mmdebstrap tarball; but that server maps the
# caller's subordinate IDs (/etc/subuid), which Debian gives new users and not root. So the tests that
# declare isolation-container, as starting a system bus is, run here as in Debian's CI containers.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/cached-tree.sh
suite=bookworm
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kepclient
mirror=$(scripts/apt-mirror.sh "$suite")
make=(mmdebstrap --variant=apt "$suite")
key=$(echo "${make[*]} $mirror" | sha256sum | cut -c1-16)
# Named for what it holds, so that the removal of old ones below matches nothing else in the cache.
name=testbed-$suite-$(dpkg --print-architecture)
root=$cache/$name-$key

if [ ! -e "$root/etc/os-release" ]; then
    echo "testbed: making a minimal $suite in $root (from $mirror)" >&2
    mkdir -p "$cache"
    log=$root.log
    "${as_root[@]}" rm -rf "$root.new"
    if ! "${as_root[@]}" "${make[@]}" "$root.new" "$mirror" >"$log" 2>&1; then
        made_tree_failed testbed "$log"
    fi
    keep_made_tree "$root"
fi

work=$(mktemp -d)
mkdir "$work/upper" "$work/work" "$work/testbed"
"${as_root[@]}" unshare --mount --pid --ipc --uts --fork --kill-child sh -c '
    root=$1
    work=$2
    shift 2
    testbed=$work/testbed
    mount -t overlay overlay -o "lowerdir=$root,upperdir=$work/upper,workdir=$work/work" "$testbed"
    mount -t proc proc "$testbed/proc"
    mount --rbind /sys "$testbed/sys"
    mount -t tmpfs -o mode=755,nosuid,nodev tmpfs "$testbed/run"
    mount -t devpts -o newinstance,ptmxmode=666,mode=620,gid=5 devpts "$testbed/dev/pts"
    mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$testbed/dev/shm"
    exec autopkgtest --apt-upgrade --ignore-restrictions=isolation-container "$@" -- chroot "$testbed"
    ' - "$root" "$work" "$@" &
run=$!
# Stopped, this script stops the run. unshare waits out SIGTERM for its child, and the namespaces' first
# process takes no signal from outside but SIGKILL: the child of the process started here (unshare's, or
# sudo's unshare, which takes its own child along) is killed, all the namespaces' processes go and their
# mounts with them; the overlay's files go after.
trap '"${as_root[@]}" pkill -KILL -P "$run" || true
    wait "$run" || true
    "${as_root[@]}" rm -rf --one-file-system "$work"' EXIT
trap 'exit 1' INT TERM HUP
wait "$run"
