#!/usr/bin/env bash
# The armhf Debian 12 system that scripts/device-test.sh boots under qemu-system-arm (machine virt):
# bookworm armhf made with mmdebstrap from the mirror this machine's apt uses (main suite only, as in
# scripts/chroot.sh), with the kernel linux-image-armmp-lpae and an initramfs of only the modules that
# machine needs to mount its root, systemd and the system bus, an ssh server that lets root in with
# the image's own key, and every package the tests (debian/tests/control) and the packages under test
# depend on, so that a run needs no network. It has no apt sources.
# Kept in the user's cache directory, named by a hash of this script, debian/tests/control and the
# Depends of the packages given; made again when they change, and the older image removed.
#   scripts/device-image.sh DEB...    prints the image's directory, making it first if needed:
#                                     root.qcow2 (ext4, the whole disk), vmlinuz, initrd.img, and the
#                                     key that logs in as root, id_ed25519
# The armhf maintainer scripts run under qemu-user-static, registered with binfmt_misc only inside a
# user namespace of this script's own (Linux 6.7 or later), with the line Debian's package gives
# systemd-binfmt; the machine's own binfmt_misc is left as it is. Needs root, or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -eq 0 ]; then
    echo "usage: $0 DEB..." >&2
    exit 2
fi
suite=bookworm
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kepclient
binfmt_rule=/usr/lib/binfmt.d/qemu-arm.conf
# What a qemu virt machine's kernel needs before the root file system is mounted.
root_modules="virtio_mmio virtio_blk ext4"
# qemu's user networking: the guest's fixed address and its gateway.
guest_address=10.0.2.15/24
guest_gateway=10.0.2.2
# The line the image writes to its serial console once ssh takes connections.
ready_line="kep-device: ready"
# Room left free on the root file system, beyond what the packages take.
free_mb=1024

# The names of the packages a Depends field lists: the first of alternatives, without versions or
# architecture qualifiers, our own packages and autopkgtest's @ names left out.
package_names() {
    tr ',' '\n' | sed -e 's/|.*//' -e 's/([^)]*)//g' -e 's/\[[^]]*\]//g' -e 's/:[a-z0-9]*//' \
        -e 's/[[:space:]]//g' | grep -v -x -e '' -e 'kepclient' -e 'kep-sim' -e '@.*' | sort -u
}
# The Depends of every test in debian/tests/control, continuation lines included.
test_depends() {
    awk '/^[^ \t#]/ { in_depends = /^Depends:/; sub(/^Depends:/, "") } in_depends { print }' \
        debian/tests/control | paste -sd, -
}
deb_depends() {
    local deb
    for deb in "$@"; do
        dpkg-deb --field "$deb" Depends
    done | paste -sd, -
}

key=$( (cat "$0" debian/tests/control && deb_depends "$@") | sha256sum | cut -c1-16)
name=device-$suite-armhf
image=$cache/$name-$key
if [ -e "$image/root.qcow2" ]; then
    echo "$image"
    exit 0
fi

packages=$( (test_depends && echo "," && deb_depends "$@") | package_names | paste -sd, -)
mirror=$(scripts/apt-mirror.sh "$suite")
new=$image.new
log=$image.log
echo "device-image: making the armhf $suite image in $image (from $mirror), a log in $log" >&2
mkdir -p "$cache"
"${as_root[@]}" rm -rf --one-file-system "$new"
mkdir -p "$new"
ssh-keygen -q -t ed25519 -N '' -C kep-device -f "$new/id_ed25519"

# The system's own files, made here and copied in: the initramfs settings before the kernel's package
# makes an initramfs, the rest once every package is in.
work=$(mktemp -d)
making=""
# Stopped, it stops mmdebstrap: the namespace and its mounts go with it.
trap '[ -z "$making" ] || "${as_root[@]}" kill "$making" 2>/dev/null || true; rm -rf "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
files=$work/files
mkdir -p "$files/initramfs-conf" "$files/initramfs-hooks" "$files/network" "$files/units" "$files/ssh"
echo MODULES=list >"$files/initramfs-conf/kep-device"
cat >"$files/initramfs-hooks/kep-device" <<EOF
#!/bin/sh
# The modules the root file system of a qemu virt machine needs, loaded before it is mounted.
[ "\$1" = prereqs ] && exit 0
. /usr/share/initramfs-tools/hook-functions
for module in $root_modules; do
    force_load "\$module"
done
EOF
chmod 755 "$files/initramfs-hooks/kep-device"
cat >"$files/network/80-kep-device.network" <<EOF
[Match]
Type=ether

[Network]
Address=$guest_address
Gateway=$guest_gateway
LinkLocalAddressing=no
IPv6AcceptRA=no
EOF
cat >"$files/units/kep-device-ready.service" <<EOF
[Unit]
Description=Tell the serial console that ssh takes connections
Wants=network-online.target
After=ssh.service network-online.target

[Service]
Type=oneshot
ExecStart=/bin/sh -c 'echo "$ready_line" >/dev/ttyAMA0'

[Install]
WantedBy=multi-user.target
EOF
cp "$new/id_ed25519.pub" "$files/ssh/authorized_keys"

system=$new/root
"${as_root[@]}" mkdir "$system"
# shellcheck disable=SC2016 # $1: the system's directory, when mmdebstrap runs the hook
make_system=(mmdebstrap --mode=root --variant=apt --architectures=armhf
    --include="linux-image-armmp-lpae,systemd-sysv,udev,dbus,openssh-server,apt-utils,$packages"
    --essential-hook='mkdir -p "$1/etc/initramfs-tools/conf.d" "$1/etc/initramfs-tools/hooks"'
    --essential-hook="copy-in $files/initramfs-conf/kep-device /etc/initramfs-tools/conf.d"
    --essential-hook="copy-in $files/initramfs-hooks/kep-device /etc/initramfs-tools/hooks"
    --customize-hook='rm -f "$1/etc/apt/sources.list" "$1"/etc/apt/sources.list.d/*'
    --customize-hook='echo kep-device >"$1/etc/hostname"'
    --customize-hook='printf "127.0.0.1\tlocalhost kep-device\n" >"$1/etc/hosts"'
    --customize-hook="copy-in $files/network/80-kep-device.network /etc/systemd/network"
    --customize-hook="copy-in $files/units/kep-device-ready.service /etc/systemd/system"
    --customize-hook='systemctl --root="$1" enable systemd-networkd.service kep-device-ready.service'
    --customize-hook='install -d -m 700 "$1/root/.ssh"'
    --customize-hook="copy-in $files/ssh/authorized_keys /root/.ssh"
    "$suite" "$system" "$mirror")

# The user namespace: the script's own process writes its ID maps (every ID to itself) once the
# namespace exists, then lets it go on, each step said through a pipe.
mkfifo "$work/unshared" "$work/mapped"
"${as_root[@]}" unshare --user --mount --pid --fork --kill-child sh -c '
    echo > "$1"
    read -r mapped < "$2"
    shift 2
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    grep -v "^#" '"$binfmt_rule"' > /proc/sys/fs/binfmt_misc/register
    exec "$@"' - "$work/unshared" "$work/mapped" "${make_system[@]}" >"$log" 2>&1 &
making=$!
exec {unshared}<>"$work/unshared"
if ! read -r -t 10 -u "$unshared" _; then
    echo "device-image: the user namespace was not made" >&2
    cat "$log" >&2
    exit 1
fi
# The sudo of a non-root user is unshare's parent: its child is the namespace's first process.
namespaced=$making
[ ${#as_root[@]} -eq 0 ] || namespaced=$(pgrep -P "$making" -x unshare)
echo "0 0 4294967295" | "${as_root[@]}" tee "/proc/$namespaced/uid_map" "/proc/$namespaced/gid_map" >/dev/null
echo > "$work/mapped"
if ! wait "$making"; then
    making=""
    tail -n 40 "$log" >&2
    echo "device-image: mmdebstrap failed (the log's last lines above, all of it in $log)" >&2
    exit 1
fi
making=""

"${as_root[@]}" cp "$system"/boot/vmlinuz-* "$new/vmlinuz"
"${as_root[@]}" cp "$system"/boot/initrd.img-* "$new/initrd.img"
"${as_root[@]}" chown "$(id -u):$(id -g)" "$new/vmlinuz" "$new/initrd.img"
used_mb=$("${as_root[@]}" du -s -m --one-file-system "$system" | cut -f1)
truncate -s "$((used_mb + free_mb))M" "$new/root.raw"
"${as_root[@]}" mke2fs -q -t ext4 -L kep-root -d "$system" "$new/root.raw"
qemu-img convert -O qcow2 "$new/root.raw" "$new/root.qcow2"
rm "$new/root.raw"
"${as_root[@]}" rm -rf --one-file-system "$system"

# Images made for what an earlier run needed go.
for old in "$cache/$name"-*; do
    [ "$old" = "$new" ] || [ "$old" = "$log" ] || rm -rf --one-file-system "$old"
done
mv "$new" "$image"
echo "device-image: made in $SECONDS s" >&2
echo "$image"
