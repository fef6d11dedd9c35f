#!/usr/bin/env bash
# Builds the release packages of one architecture into dist/ with dpkg-buildpackage (debian/):
#   scripts/package.sh            this machine's architecture, built here
#   scripts/package.sh armhf      the device's, cross-built in the clean chroot of scripts/chroot.sh;
#                                 its unstripped programs are left in build-armhf/ too
# kepclient, kep-sim and their debug symbols, kepclient-dbgsym and kep-sim-dbgsym; dist/ keeps nothing
# else of that architecture. The build works on a copy of the files git tracks, as the work tree has
# them, in build-deb/kepclient/, and leaves its log there. DEB_BUILD_OPTIONS passes through (nocheck
# skips the test suite of a native build; a cross build never runs it).
# Reproducible: two runs on the same commit give byte-identical packages, wherever the clone lies and
# whenever it runs (every file's time is the latest changelog entry's).
set -euo pipefail
cd "$(dirname "$0")/.."

native=$(dpkg --print-architecture)
arch=${1:-$native}
stage=build-deb
log=$stage/kepclient/build.log
say() { echo "package: $*" >&2; }
if [ "$arch" != "$native" ] && [ "$arch" != armhf ]; then
    say "architectures: $native (the default) or armhf, not $arch"
    exit 2
fi
if [ -n "$(git status --porcelain --untracked-files=no)" ]; then
    say "warning: the work tree differs from commit $(git rev-parse --short HEAD);" \
        "the packages hold the changes"
fi

rm -rf "$stage"
mkdir -p "$stage/kepclient"
git ls-files -z | tar --null --ignore-failed-read -T - -cf - 2>/dev/null | tar -xf - -C "$stage/kepclient"
build=(dpkg-buildpackage -b -uc -us -J"$(nproc)")

failed() {
    tail -n 40 "$log" >&2
    say "dpkg-buildpackage failed (the log's last lines above)"
    exit 1
}
if [ "$arch" = "$native" ]; then
    scripts/install-deps.sh
    (cd "$stage/kepclient" && "${build[@]}") >"$log.tmp" 2>&1 || { mv "$log.tmp" "$log"; failed; }
    mv "$log.tmp" "$log"
else
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    root=$(scripts/chroot.sh)
    "${as_root[@]}" rm -rf "$root/build"
    "${as_root[@]}" mkdir "$root/build"
    "${as_root[@]}" cp -a "$stage/kepclient" "$root/build/"
    # Always at the same path in the chroot.
    if ! scripts/chroot.sh run sh -c 'cd /build/kepclient && "$@" >build.log 2>&1' - \
        "${build[@]}" -a"$arch" -Pcross,nocheck; then
        cp "$root/build/kepclient/build.log" "$log"
        failed
    fi
    cp "$root/build/kepclient/build.log" "$log"
    cp "$root"/build/*.deb "$stage/"
    mkdir -p build-armhf
    cp "$root"/build/kepclient/obj-arm-linux-gnueabihf/{kepclient,kep-sim} build-armhf/
    "${as_root[@]}" rm -rf "$root/build"
fi
mkdir -p dist
rm -f dist/*_"$arch".deb
mv "$stage"/*_"$arch".deb dist/
ls dist/*_"$arch".deb
