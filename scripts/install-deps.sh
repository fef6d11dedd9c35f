#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing and the demo need.
# Idempotent: prints nothing and touches nothing when all are present.
set -euo pipefail

packages=(build-essential cmake qtbase5-dev qtbase5-dev-tools libglib2.0-dev pkg-config dbus-daemon dbus-bin util-linux faketime python3-gi file man-db groff-base lintian libglib2.0-bin "$@")

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq >/dev/null || true
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
