#!/usr/bin/env bash
# The clean Debian 12 chroot of the armhf build and of the tests as installed: bookworm for this
# machine's architecture with armhf added, debhelper, the cross compilers, the armhf build
# dependencies (debian/control, profiles cross and nocheck) and the test dependencies
# (debian/tests/control). Its packages come from the mirror this machine's apt uses, from bookworm's
# main suite only: no security or updates suite, whose armhf and amd64 indexes can be out of step.
# It is kept in the user's cache directory, named by a hash of the two control files, and made again
# when they change (the Build-Depends, say).
#   scripts/chroot.sh                prints the chroot's directory, making it first if needed
#   scripts/chroot.sh run CMD...     runs CMD in the chroot as root, with /proc and /dev for CMD only
#   scripts/chroot.sh testbed CMD... runs CMD here as root, the directory of a throwaway copy of the
#                                    chroot (an overlay, gone with CMD) added as its last argument
set -euo pipefail
cd "$(dirname "$0")/.."
suite=bookworm
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kepclient
key=$(cat debian/control debian/tests/control | sha256sum | cut -c1-16)
# Named for what it holds, so that the removal of old ones below matches nothing else in the cache.
name=$suite-$(dpkg --print-architecture)+armhf
root=$cache/$name-$key

if [ ! -e "$root/etc/os-release" ]; then
    mirror=$(scripts/apt-mirror.sh "$suite")
    # The tests' dependencies, our own packages left out.
    test_deps=$(sed -n 's/^Depends: //p' debian/tests/control | tr ',' '\n' | tr -d ' ' |
        grep -vx 'kepclient\|kep-sim\|@.*' | paste -sd, -)
    echo "chroot: making a $suite chroot in $root (from $mirror)" >&2
    mkdir -p "$cache"
    log=$root.log
    "${as_root[@]}" rm -rf "$root.new"
    "${as_root[@]}" mmdebstrap --variant=buildd --architectures="$(dpkg --print-architecture),armhf" \
        --include="debhelper,crossbuild-essential-armhf,apt-utils,$test_deps" \
        --skip=cleanup/apt/lists \
        --customize-hook='mkdir -p "$1/tmp/source/debian"' \
        --customize-hook='copy-in debian/control debian/changelog /tmp/source/debian' \
        --customize-hook='chroot "$1" sh -c "cd /tmp/source && apt-get -q build-dep -y -aarmhf \
            -Pcross,nocheck ./"' \
        --customize-hook='rm -r "$1/tmp/source"' \
        "$suite" "$root.new" "$mirror" >"$log" 2>&1 &
    making=$!
    # Stopped, this script stops mmdebstrap too.
    trap '"${as_root[@]}" kill "$making" 2>/dev/null || true' EXIT
    if ! wait "$making"; then
        tail -n 40 "$log" >&2
        echo "chroot: mmdebstrap failed (the log's last lines above, all of it in $log)" >&2
        exit 1
    fi
    # Chroots made for earlier Build-Depends go.
    for old in "$cache/$name"-*; do
        [ "$old" = "$root.new" ] || [ "$old" = "$log" ] || "${as_root[@]}" rm -rf --one-file-system "$old"
    done
    "${as_root[@]}" mv "$root.new" "$root"
    trap - EXIT
    echo "chroot: made in $SECONDS s" >&2
fi

mode=${1:-}
case $mode in
    run | testbed) shift ;;
    *)
        echo "$root"
        exit 0
        ;;
esac
work=$(mktemp -d)
trap '"${as_root[@]}" rm -rf --one-file-system "$work"' EXIT
mkdir "$work/upper" "$work/work" "$work/testbed"
# In a mount namespace of its own: the mounts go when the command ends, however it ends.
"${as_root[@]}" unshare --mount --pid --fork --kill-child sh -c '
    mode=$1
    root=$2
    work=$3
    shift 3
    if [ "$mode" = testbed ]; then
        mount -t overlay overlay -o "lowerdir=$root,upperdir=$work/upper,workdir=$work/work" "$work/testbed"
        root=$work/testbed
    fi
    mount --rbind /dev "$root/dev"
    mount -t proc proc "$root/proc"
    if [ "$mode" = testbed ]; then
        exec "$@" "$root"
    fi
    exec chroot "$root" "$@"' - "$mode" "$root" "$work" "$@"
