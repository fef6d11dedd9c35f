#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once on a
# plain build, once on a build with AddressSanitizer and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

echo "== plain build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure

echo "== armhf build: the end-to-end suites with the armhf kepclient under qemu-arm =="
scripts/cross-build.sh
KEPCLIENT_UNDER_TEST="$PWD/build-armhf/kepclient" KEPCLIENT_WRAPPER="$PWD/scripts/qemu-armhf.sh" \
    ctest --test-dir build -L e2e --output-on-failure
