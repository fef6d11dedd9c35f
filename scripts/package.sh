#!/usr/bin/env bash
# Builds the release packages of one architecture into dist/:
#   scripts/package.sh            this machine's architecture
#   scripts/package.sh armhf      the device's (cross build; prepares the armhf sysroot if needed)
# kepclient, kep-sim and their debug symbols, kepclient-dbgsym and
# kep-sim-dbgsym; dist/ keeps nothing else of that architecture.
#
# Reproducible: two runs on the same commit give byte-identical files,
# wherever the clone lies and whenever it runs. The commit's date is
# SOURCE_DATE_EPOCH (every file's time in the packages), the build tree is
# build-release[-armhf] inside the source tree and its paths are mapped to
# fixed names in the programs (cmake/hardening.cmake), and dpkg-deb writes the
# archives in a fixed order with root as owner.
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-$(dpkg --print-architecture)}
native=$(dpkg --print-architecture)
say() { echo "package: $*" >&2; }

SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
if [ -n "$(git status --porcelain --untracked-files=no)" ]; then
    say "warning: the work tree differs from commit $(git rev-parse --short HEAD);" \
        "the packages hold the changes"
fi

configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF)
tools=""
if [ "$arch" = "$native" ]; then
    builddir=build-release
    scripts/install-deps.sh
elif [ "$arch" = armhf ]; then
    builddir=build-release-armhf
    tools=arm-linux-gnueabihf-
    scripts/cross-prepare.sh
    sysroot=${KEP_ARMHF_SYSROOT:-$PWD/.cross/sysroot-armhf}
    configure+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DKEP_ARMHF_SYSROOT="$sysroot")
else
    say "architectures: $native (the default) or armhf, not $arch"
    exit 2
fi

cmake -S . -B "$builddir" --no-warn-unused-cli "${configure[@]}" >/dev/null
cmake --build "$builddir" -j"$(nproc)" >/dev/null

stage=$builddir/packages
rm -rf "$stage"
mkdir -p dist
rm -f dist/*_"$arch".deb

# build PACKAGE [CONTROL-LINE...]: dist/PACKAGE_<version>_<arch>.deb from
# $stage/PACKAGE, with the configured control file and the lines given.
build() {
    local package=$1
    local root=$stage/$1
    local size
    shift
    mkdir -p "$root/DEBIAN"
    # Modes as Debian wants them, whatever the umask of the build.
    find "$root" -type d -exec chmod 755 {} +
    find "$root" -type f -exec chmod 644 {} +
    [ ! -d "$root/usr/bin" ] || chmod 755 "$root"/usr/bin/*
    (cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z |
        xargs -0 -r md5sum) >"$root/DEBIAN/md5sums"
    chmod 644 "$root/DEBIAN/md5sums"
    # Installed-Size as dpkg-gencontrol counts it: KiB per file, one per directory and link.
    size=$(find "$root" -path "$root/DEBIAN" -prune -o -printf '%y %s\n' |
        awk '$1 == "f" { s += int(($2 + 1023) / 1024); next } { s += 1 } END { print s }')
    {
        cat "$builddir/debian-control/$package.control"
        echo "Installed-Size: $size"
        printf '%s\n' "$@"
    } >"$root/DEBIAN/control"
    chmod 644 "$root/DEBIAN/control"
    find "$root" -exec touch --no-dereference --date="@$SOURCE_DATE_EPOCH" {} +
    dpkg-deb --root-owner-group -Zxz --build "$root" dist/ >/dev/null
}

while read -r package component; do
    DESTDIR=$PWD/$stage/$package cmake --install "$builddir" --component "$component" >/dev/null
    program=$stage/$package/usr/bin/$package
    id=$(LC_ALL=C readelf -n "$program" | sed -n 's/^ *Build ID: *\([0-9a-f]*\)$/\1/p')
    if [ ${#id} -le 2 ]; then
        say "$program has no build-id"
        exit 1
    fi
    # As Debian's dh_strip: the debug information, compressed, under the
    # build-id, where gdb looks for it; the program without it.
    debug=$stage/$package-dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    mkdir -p "$(dirname "$debug")" "$stage/$package-dbgsym/usr/share/doc"
    "${tools}objcopy" --only-keep-debug --compress-debug-sections "$program" "$debug"
    "${tools}strip" --remove-section=.comment --remove-section=.note "$program"
    ln -s "$package" "$stage/$package-dbgsym/usr/share/doc/$package-dbgsym"
    build "$package"
    build "$package-dbgsym" "Build-Ids: $id"
done <"$builddir/debian-control/components"

ls dist/*_"$arch".deb
