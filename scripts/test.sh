#!/usr/bin/env bash
# Installs what is missing, checks the style, builds, and runs the whole test suite: on a plain
# build; on this machine's release packages (scripts/package.sh), installed and purged by piuparts
# and built twice to show they are reproducible; on a build with AddressSanitizer and UBSan; kep-sim's
# scenario reader under libFuzzer; and the end-to-end suites once more with the armhf kepclient of the
# armhf release build under qemu-arm, and the armhf packages.
set -euo pipefail
cd "$(dirname "$0")/.."

# hardening-check (devscripts) and gdb-multiarch for the package test, piuparts and adequate for
# installing the packages, clang-format and pycodestyle for the style check, clang and its libFuzzer for
# the fuzz build.
scripts/install-deps.sh devscripts gdb-multiarch piuparts adequate clang-format pycodestyle clang-14 \
    libclang-rt-14-dev

echo "== style =="
scripts/style.sh
jobs=$(nproc)
arch=$(dpkg --print-architecture)
# ctest names a skipped test only; the reason is in the test's output.
why_skipped() { grep -h ': skipped: ' "$1/Testing/Temporary/LastTest.log" || true; }

echo "== plain build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure
why_skipped build

echo "== release packages, $arch =="
scripts/package.sh
version=$(sed -n 's/^Version: //p' build-release/debian-control/kepclient.control)
tests/packages/package_test.sh dist "$arch" "$version"
tests/packages/piuparts_test.sh dist "$arch" "$version"
tests/packages/reproducible_test.sh dist "$arch"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure
why_skipped build-asan

echo "== libFuzzer on kep-sim's scenario reader: clang with AddressSanitizer and UBSan =="
CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DKEP_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$jobs" --target scenario_fuzz
ctest --test-dir build-fuzz -R '^scenario_fuzz$' --output-on-failure

echo "== armhf: release packages, and the end-to-end suites with their kepclient under qemu-arm =="
scripts/package.sh armhf
KEPCLIENT_UNDER_TEST="$PWD/build-release-armhf/kepclient" KEPCLIENT_WRAPPER="$PWD/scripts/qemu-armhf.sh" \
    ctest --test-dir build -L e2e --output-on-failure
tests/packages/package_test.sh dist armhf "$version"
