#!/usr/bin/env bash
# Prepares a Debian 12 x86-64 machine for the 32-bit ARM hard-float (armhf)
# cross build:
#   - host packages: the armhf cross toolchain, qemu-arm, the host Qt 5 tools
#     (moc, qdbusxml2cpp, ...) and cmake;
#   - an armhf sysroot in .cross/sysroot-armhf holding Debian 12's armhf Qt 5
#     headers, CMake config files and the runtime libraries of Qt 5 Core, DBus,
#     Network and Test, and GLib's development files (libglib2.0-dev), each
#     with its dependency closure, fetched with `apt-get download` (cached in
#     .cross/debs) and unpacked with `dpkg -x`.
#     Nothing armhf is installed into the host's dpkg database.
# Idempotent: prints nothing and touches nothing when all is in place.
# KEP_ARMHF_SYSROOT, when set in the environment, overrides the sysroot path.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

arch=armhf
triplet=arm-linux-gnueabihf
sysroot=${KEP_ARMHF_SYSROOT:-$repo/.cross/sysroot-armhf}
debs=$repo/.cross/debs
stamp=$sysroot/.kep-sysroot-packages

host_packages=(crossbuild-essential-armhf qemu-user qtbase5-dev-tools qtbase5-dev
               cmake dpkg-dev file)
# Taken without their dependencies: Qt headers, .so links and CMake config
# files (qtbase5-dev), and the mkspec directory that Qt5Core's CMake config
# requires (qt5-qmake).
dev_packages=(qtbase5-dev qt5-qmake)
# Taken with the closure of their Depends/Pre-Depends. Qt 5 Network and Test
# are for the test suite (BUILD_TESTING=ON); kep-sim is built on GLib's GDBus.
closure_roots=(libqt5core5a libqt5dbus5 libqt5network5 libqt5test5 libglib2.0-dev)

say() {
    echo "cross-prepare: $*" >&2
}
die() {
    say "error: $*"
    exit 1
}

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
apt_opts=(-q -o=Dpkg::Use-Pty=0)
# apt-get download run as root into a directory the sandbox user cannot
# write to would warn about it; there is nothing to sandbox from here.
[ "$(id -u)" -eq 0 ] && apt_opts+=(-o APT::Sandbox::User=root)
export DEBIAN_FRONTEND=noninteractive

# --- host side ----------------------------------------------------------------
missing=()
for p in "${host_packages[@]}"; do
    if [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" != "install ok installed" ]; then
        missing+=("$p")
    fi
done

add_arch=0
[[ $'\n'$(dpkg --print-foreign-architectures)$'\n' == *$'\n'$arch$'\n'* ]] || add_arch=1

# Fast path: the package set below is a function of the package indexes
# and of this script only, so an up-to-date stamp means nothing changed.
lists=
eval "$(apt-config shell lists Dir::State::lists/d)"
if [ ${#missing[@]} -eq 0 ] && [ "$add_arch" -eq 0 ] && [ -f "$stamp" ] &&
   [ ! "$0" -nt "$stamp" ] && [ -d "$lists" ] &&
   [ -z "$(find "$lists" -maxdepth 1 -name "*_binary-${arch}_Packages*" -newer "$stamp" -print -quit)" ] &&
   [ -n "$(find "$lists" -maxdepth 1 -name "*_binary-${arch}_Packages*" -print -quit)" ]; then
    exit 0
fi

have_index() {
    local out
    out=$(apt-cache show --no-all-versions "libqt5core5a:$arch" 2>/dev/null) || return 1
    [[ $out == *"Package: libqt5core5a"* ]]
}

if [ "$add_arch" -eq 1 ]; then
    say "adding the $arch architecture to dpkg"
    $sudo dpkg --add-architecture "$arch"
fi
# One index update serves both the host packages and the armhf indexes;
# install-deps.sh waits for apt's lock if another process holds it.
if [ ${#missing[@]} -gt 0 ] || [ "$add_arch" -eq 1 ] || ! have_index; then
    say "apt-get update"
    scripts/install-deps.sh --update "${missing[@]}"
fi
have_index || die "no $arch package index (apt-get update failed for it?)"

# --- the armhf package set ------------------------------------------------------
# First alternative of each Depends/Pre-Depends group; a virtual package
# stands for its first provider. Prints bare package names.
first_alternatives() {
    apt-cache depends --no-recommends --no-suggests --no-conflicts --no-breaks \
        --no-replaces --no-enhances "$@" 2>/dev/null | awk '
        /^[^ ]/ { newgroup = 1; done = 0; pend = 0; next }
        /^ [ |](Pre)?Depends: / {
            if (newgroup) done = 0
            newgroup = ($0 !~ /^ \|/)
            pend = 0
            if (!done) {
                if ($2 ~ /^</) pend = 1
                else { print $2; done = 1 }
            }
            next
        }
        /^    [^ ]/ { if (pend && !done) { print $1; done = 1; pend = 0 } next }' |
        sed 's/:.*$//'
}

# Package records (name, version, architecture, multi-arch) of the
# candidates, one a line.
records() {
    apt-cache show --no-all-versions "$@" 2>/dev/null | awk '
        /^Package: /      { p = $2 }
        /^Version: /      { v = $2 }
        /^Architecture: / { a = $2 }
        /^Multi-Arch: /   { m = $2 }
        /^$/ { if (p != "") print p, v, a, (m == "" ? "no" : m); p = v = a = m = "" }
        END  { if (p != "") print p, v, a, (m == "" ? "no" : m) }'
}

# The closure stops at tools (Multi-Arch: foreign, e.g. GLib's code
# generators and pkg-config) and at architecture-independent packages: the
# build machine's own serve there, and their dependencies are no armhf code.
# It also stops at the C library's development files, which come with the
# cross toolchain (libc6-dev-armhf-cross): a second copy in the sysroot would
# shadow them, since GLib's pkg-config flags name the sysroot's usr/include.
declare -A seen=([libc6-dev]=1) closure=()
frontier=()
for p in "${closure_roots[@]}"; do seen[$p]=1; closure[$p]=1; frontier+=("$p"); done
while [ ${#frontier[@]} -gt 0 ]; do
    candidates=()
    while read -r d; do
        if [ -z "$d" ] || [ -n "${seen[$d]:-}" ]; then continue; fi
        seen[$d]=1
        candidates+=("$d")
    done < <(first_alternatives "${frontier[@]/%/:$arch}" | sort -u)
    frontier=()
    [ ${#candidates[@]} -gt 0 ] || break
    declare -A known=()
    while read -r p _ a m; do
        known[$p]=1
        if [ "$a" = "$arch" ] && [ "$m" != foreign ]; then closure[$p]=1; frontier+=("$p"); fi
    done < <(records "${candidates[@]/%/:$arch}")
    for p in "${candidates[@]}"; do
        [ -n "${known[$p]:-}" ] || [ "$(records "$p" | awk 'NR == 1 { print $3 }')" = all ] ||
            die "no $arch candidate for package $p"
    done
    unset known
done

wanted=("${dev_packages[@]}" "${!closure[@]}")
mapfile -t wanted < <(printf '%s\n' "${wanted[@]}" | sort -u)

declare -A version=()
while read -r p v a _; do
    [ "$a" = "$arch" ] && version[$p]=$v
done < <(records "${wanted[@]/%/:$arch}")

set_list=()
for p in "${wanted[@]}"; do
    if [ -n "${version[$p]:-}" ]; then
        set_list+=("$p ${version[$p]}")
    else
        # Architecture-independent dependencies carry no armhf code.
        a=$(records "$p" | awk 'NR == 1 { print $3 }')
        [ "$a" = all ] || die "no $arch candidate for package $p"
    fi
done
wanted_text=$(printf '%s\n' "${set_list[@]}")

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted_text" ]; then
    touch "$stamp"
    exit 0
fi

# --- download and unpack -----------------------------------------------------------
say "building the $arch sysroot from ${#set_list[@]} packages"
mkdir -p "$debs"
deb_file() { echo "$debs/${1}_${2//:/%3a}_${arch}.deb"; }
todo=()
for entry in "${set_list[@]}"; do
    read -r p v <<<"$entry"
    [ -s "$(deb_file "$p" "$v")" ] || todo+=("$p:$arch=$v")
done
if [ ${#todo[@]} -gt 0 ]; then
    say "downloading ${#todo[@]} packages into .cross/debs"
    (cd "$debs" && apt-get "${apt_opts[@]}" download "${todo[@]}" >/dev/null)
fi

tmp=$sysroot.new.$$
trap 'rm -rf "$tmp"' EXIT
rm -rf "$tmp"
mkdir -p "$tmp"
for entry in "${set_list[@]}"; do
    read -r p v <<<"$entry"
    f=$(deb_file "$p" "$v")
    [ -s "$f" ] || die "download of $p $v failed"
    dpkg -x "$f" "$tmp"
done

# Absolute symbolic links would point into the host's root: make them
# relative so that they resolve inside the sysroot.
while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    rel=$(realpath -m --relative-to="$(dirname "$link")" "$tmp$target")
    ln -sfn "$rel" "$link"
done < <(find "$tmp" -type l -lname '/*' -print0)

for f in "usr/lib/$triplet/cmake/Qt5Core/Qt5CoreConfig.cmake" \
         "usr/lib/$triplet/cmake/Qt5DBus/Qt5DBusConfig.cmake" \
         "usr/lib/$triplet/cmake/Qt5Network/Qt5NetworkConfig.cmake" \
         "usr/lib/$triplet/cmake/Qt5Test/Qt5TestConfig.cmake" \
         "usr/lib/$triplet/libQt5Core.so" \
         "usr/include/$triplet/qt5/QtCore/qglobal.h" \
         "usr/lib/$triplet/pkgconfig/gio-2.0.pc" \
         "usr/include/glib-2.0/gio/gio.h" \
         "lib/ld-linux-armhf.so.3"; do
    [ -e "$tmp/$f" ] || die "sysroot lacks $f"
done

host_qt=$(dpkg-query -W -f='${Version}' qtbase5-dev-tools | sed 's/^[0-9]*://; s/^\([0-9]*\.[0-9]*\).*/\1/')
target_qt=$(echo "${version[libqt5core5a]}" | sed 's/^[0-9]*://; s/^\([0-9]*\.[0-9]*\).*/\1/')
[ "$host_qt" = "$target_qt" ] ||
    say "warning: host Qt tools are $host_qt but the $arch Qt is $target_qt"

echo "$wanted_text" >"$tmp/.kep-sysroot-packages"
rm -rf "$sysroot"
mkdir -p "$(dirname "$sysroot")"
mv "$tmp" "$sysroot"
trap - EXIT
say "sysroot ready: $sysroot"
