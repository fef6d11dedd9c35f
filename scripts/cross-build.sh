#!/usr/bin/env bash
# Cross-builds the project for 32-bit ARM hard-float (armhf) the Debian way: the armhf packages
# (scripts/package.sh armhf, in the chroot of scripts/chroot.sh), whose programs, unstripped, are left
# in build-armhf/. scripts/qemu-armhf.sh runs them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/package.sh armhf >/dev/null
file build-armhf/kepclient build-armhf/kep-sim
