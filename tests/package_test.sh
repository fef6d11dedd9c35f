#!/usr/bin/env bash
# Inspects a kepclient .deb: architecture, version, dependencies, the files
# of the install step, and that the programs inside are built for that
# architecture.
#   tests/package_test.sh PACKAGE.deb ARCHITECTURE VERSION
set -euo pipefail
package=$1 arch=$2 version=$3
failures=0
fail() { echo "package test: $package: $*" >&2; failures=$((failures + 1)); }

field() { dpkg-deb -f "$package" "$1"; }
[ "$(field Package)" = kepclient ] || fail "Package is '$(field Package)'"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is '$(field Architecture)', not $arch"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', not $version"
depends=$(field Depends)
for dependency in libc6 libstdc++6 libqt5core5a libqt5dbus5 libqt5network5 dbus; do
    [[ ", $depends," == *", $dependency "* || ", $depends," == *", $dependency,"* ]] || fail "Depends lacks $dependency: $depends"
done

files=$(dpkg-deb -c "$package" | awk '{print $6}')
for file in ./usr/bin/kepclient ./usr/bin/kep-sim \
            ./usr/share/dbus-1/interfaces/com.calyra.kep.xml \
            ./usr/share/dbus-1/system.d/com.calyra.kep.conf \
            ./usr/share/man/man1/kepclient.1 \
            ./usr/share/bash-completion/completions/kepclient; do
    grep -qx -- "$file" <<<"$files" || fail "has no $file"
done

unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
dpkg-deb -x "$package" "$unpacked"
case $arch in
    armhf) machine="ARM, EABI5" ;;
    amd64) machine="x86-64" ;;
    *) machine="$arch" ;;
esac
for program in kepclient kep-sim; do
    description=$(file -b "$unpacked/usr/bin/$program")
    [[ $description == *"$machine"* ]] || fail "$program is not for $arch: $description"
    [[ $description == *stripped* && $description != *"not stripped"* ]] || fail "$program is not stripped: $description"
done

if [ "$failures" -gt 0 ]; then
    echo "package test: $package: $failures failure(s)" >&2
    exit 1
fi
echo "package test: $package: $arch $version, $(wc -l <<<"$files") entries: ok"
