#!/usr/bin/env bash
# Installs what is missing, builds, and runs kepclient against the simulated
# service on a private bus: no device, no root service needed.
#   scripts/demo.sh                 kepclient status
#   scripts/demo.sh scan            any kepclient command words
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
[ $# -gt 0 ] || set -- status
exec build/kep-sim run -- build/kepclient "$@"
