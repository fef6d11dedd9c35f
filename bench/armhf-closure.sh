#!/usr/bin/env bash
# What installing a set of packages adds to a minimal Debian 12 armhf system:
# the packages apt would install (Depends and Pre-Depends, no Recommends) and
# the sum of their Installed-Size fields.
#
#   bench/armhf-closure.sh                 kepclient's Depends with and without libqt5network5
#   bench/armhf-closure.sh NAME PKG...     one set of packages, labelled NAME
#
# The minimal system is the package list of `debootstrap --variant=minbase`
# for armhf (Priority required, apt, and their dependencies), taken with
# --print-debs: nothing is unpacked. apt then runs with a private state
# directory under a temporary folder: an armhf-only view of the Debian 12
# archive, and a status file that lists the minimal system's packages as
# installed; `apt-get --simulate install` names what would be added. The
# machine's own apt state and dpkg database are not touched.
set -euo pipefail
cd "$(dirname "$0")/.."

suite=bookworm
mirror=$(scripts/apt-mirror.sh "$suite")
scripts/install-deps.sh debootstrap

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/etc/apt/{apt.conf.d,preferences.d,sources.list.d} "$work"/state/lists/partial \
    "$work"/cache/archives/partial
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
    >"$work/etc/apt/sources.list"
cat >"$work/apt.conf" <<EOF
Dir::Etc "$work/etc/apt";
Dir::State "$work/state";
Dir::State::status "$work/state/status";
Dir::Cache "$work/cache";
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Debug::NoLocking "true";
EOF
export APT_CONFIG=$work/apt.conf

if ! debootstrap --print-debs --variant=minbase --arch=armhf "$suite" "$work/target" "$mirror" \
    >"$work/minbase" 2>"$work/debootstrap.log"; then
    cat "$work/debootstrap.log" >&2
    exit 1
fi
: >"$work/state/status"
apt-get update -qq
read -r -d "" -a minbase <"$work/minbase" || true
for p in "${minbase[@]}"; do
    apt-cache show --no-all-versions "$p" | awk 'BEGIN { RS = ""; ORS = "\n\n" } NR == 1' |
        sed '/^Package:/a Status: install ok installed'
done >"$work/state/status"
apt-get --simulate check >/dev/null

# closure NAME PKG...: one line: NAME, packages added, their installed size.
closure() {
    local name=$1 p size total=0 added
    shift
    added=$(apt-get --simulate install "$@" | awk '/^Inst / { print $2 }')
    for p in $added; do
        size=$(apt-cache show --no-all-versions "$p" | sed -n 's/^Installed-Size: //p')
        total=$((total + size))
    done
    printf '%s: %d packages, %d KiB installed size\n    %s\n' "$name" "$(wc -w <<<"$added")" "$total" \
        "$(echo $added)"
}

echo "minimal system (debootstrap --variant=minbase, $suite, armhf): ${#minbase[@]} packages"
if [ $# -gt 0 ]; then
    closure "$@"
else
    base=(libc6 libgcc-s1 libstdc++6 libqt5core5a libqt5dbus5 dbus)
    closure "with libqt5network5" "${base[@]}" libqt5network5
    closure "without libqt5network5" "${base[@]}"
fi
