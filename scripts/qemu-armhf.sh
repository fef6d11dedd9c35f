#!/usr/bin/env bash
# Runs an armhf program on the build machine through qemu-arm, with the chroot
# of the armhf build (scripts/chroot.sh, made first if needed) as its root for
# shared libraries and Qt plugins:
#
#   scripts/qemu-armhf.sh build-armhf/kepclient status
#
# The environment is passed through (DBUS_SYSTEM_BUS_ADDRESS,
# DBUS_SESSION_BUS_ADDRESS, ...), except for what would make the armhf
# program reach for the build machine's x86-64 code: QT_PLUGIN_PATH is set
# to the chroot's plugins, LD_LIBRARY_PATH is dropped, and LD_PRELOAD is
# kept for qemu itself (faketime, say) but hidden from the armhf program.
# Exit status is the program's.
set -euo pipefail

if [ $# -lt 1 ]; then
    echo "usage: $0 PROGRAM [ARGS...]" >&2
    exit 2
fi

chroot=$("$(dirname "$(realpath "$0")")/chroot.sh")
triplet=arm-linux-gnueabihf

command -v qemu-arm >/dev/null || {
    echo "$0: qemu-arm not found (Debian: qemu-user)" >&2
    exit 2
}

# qemu-arm -L makes the program's absolute file paths resolve inside the
# chroot first (dynamic loader, libraries, Qt's built-in plugin directory),
# falling back to the build machine's files (/etc, /proc, sockets, ...).
export QT_PLUGIN_PATH=$chroot/usr/lib/$triplet/qt5/plugins
unset QT_QPA_PLATFORM_PLUGIN_PATH LD_LIBRARY_PATH
exec qemu-arm -L "$chroot" -U LD_PRELOAD "$@"
