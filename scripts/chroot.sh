#!/usr/bin/env bash
# The clean Debian 12 chroot of the armhf build: bookworm for this machine's architecture with armhf
# added, debhelper, the cross compilers and the armhf build dependencies (debian/control, profiles cross
# and nocheck). Its packages come from the mirror this machine's apt uses, from bookworm's main suite
# only: no security or updates suite, whose armhf and amd64 indexes can be out of step. It is kept in
# the user's cache directory, named by a hash of debian/control, and made again when that changes (the
# Build-Depends, say). The tests as installed run elsewhere, in a minimal testbed (scripts/testbed.sh).
#   scripts/chroot.sh                prints the chroot's directory, making it first if needed
#   scripts/chroot.sh run CMD...     runs CMD in the chroot as root, with /proc and /dev for CMD only
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/cached-tree.sh
suite=bookworm
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kepclient
key=$(sha256sum <debian/control | cut -c1-16)
# Named for what it holds, so that the removal of old ones below matches nothing else in the cache.
name=$suite-$(dpkg --print-architecture)+armhf
root=$cache/$name-$key

if [ ! -e "$root/etc/os-release" ]; then
    mirror=$(scripts/apt-mirror.sh "$suite")
    echo "chroot: making a $suite chroot in $root (from $mirror)" >&2
    mkdir -p "$cache"
    log=$root.log
    "${as_root[@]}" rm -rf "$root.new"
    "${as_root[@]}" mmdebstrap --variant=buildd --architectures="$(dpkg --print-architecture),armhf" \
        --include=debhelper,crossbuild-essential-armhf \
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
        made_tree_failed chroot "$log"
    fi
    keep_made_tree "$root" # chroots made for earlier Build-Depends go
    trap - EXIT
    echo "chroot: made in $SECONDS s" >&2
fi

if [ "${1:-}" != run ]; then
    echo "$root"
    exit 0
fi
shift
# In a mount namespace of its own: the mounts go when the command ends, however it ends.
"${as_root[@]}" unshare --mount --pid --fork --kill-child sh -c '
    root=$1
    shift
    mount --rbind /dev "$root/dev"
    mount -t proc proc "$root/proc"
    exec chroot "$root" "$@"' - "$root" "$@"
