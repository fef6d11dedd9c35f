#!/usr/bin/env bash
# Installs the four packages of one architecture into a minimal Debian 12 chroot with apt, runs adequate
# on them (its findings fail the test), purges them and looks for anything left behind: Debian's own test
# for packages, piuparts. The chroot's packages come from the mirror this machine's apt uses (through its
# proxy, if it has one). piuparts needs root: as another user it goes through sudo, and without either, or
# when no mirror answers, the test says it was skipped and why, and passes.
#   tests/packages/piuparts_test.sh DIR ARCHITECTURE VERSION
set -euo pipefail
cd "$(dirname "$0")/../.."
dir=$1
arch=$2
version=$3
suite=bookworm

skip() {
    echo "piuparts: skipped: $*"
    exit 0
}

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! sudo -n true 2>/dev/null; then
        skip "piuparts needs root, and sudo asks for a password"
    fi
    as_root=(sudo -n)
fi

debs=()
for package in kepclient kep-sim kepclient-dbgsym kep-sim-dbgsym; do
    debs+=("$dir/${package}_${version}_${arch}.deb")
done

if ! mirror=$(scripts/apt-mirror.sh "$suite"); then
    skip "this machine's apt has no source for $suite"
fi
work=$(mktemp -d)
# Whatever piuparts left mounted in its chroot (it was interrupted) is unmounted before anything is
# removed, and the removal stays on this file system.
clean_up() {
    local mounts
    mounts=$(awk -v root="$work/" 'index($2, root) == 1 { print $2 }' /proc/mounts | sort -r)
    for mount in $mounts; do
        "${as_root[@]}" umount -l "$mount" || true
    done
    "${as_root[@]}" rm -rf --one-file-system "$work"
}
trap clean_up EXIT
# apt's own downloader, with apt's own proxy settings: what the chroot's apt will meet.
apt_helper=/usr/lib/apt/apt-helper
if ! "$apt_helper" download-file "$mirror/dists/$suite/Release" "$work/Release" >/dev/null 2>&1; then
    skip "the mirror $mirror does not answer"
fi

options=(--distribution="$suite" --mirror="$mirror" --tmpdir="$work" --fail-if-inadequate)
proxy=$(apt-config dump --format '%v' Acquire::http::Proxy)
if [ -n "$proxy" ]; then
    options+=(--proxy="$proxy")
fi
started=$SECONDS
if ! "${as_root[@]}" piuparts "${options[@]}" "${debs[@]}" >"$work/log" 2>&1; then
    tail -n 40 "$work/log" >&2
    echo "piuparts: FAIL: $arch packages $version (the log's last lines above)" >&2
    exit 1
fi
echo "piuparts: kepclient and kep-sim $version $arch: installed, adequate, purged, nothing left" \
    "($((SECONDS - started)) s, $mirror)"
