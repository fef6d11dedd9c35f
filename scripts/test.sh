#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: on a plain
# build (and its .deb packages), on a build with AddressSanitizer and UBSan, and the
# end-to-end suites once more with the armhf kepclient under qemu-arm (and
# the armhf .deb packages).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

echo "== plain build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' build/CPackConfig.cmake)
(cd build && cpack -G DEB >/dev/null)
tests/package_test.sh build "$(dpkg --print-architecture)" "$version"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure

echo "== armhf build: the end-to-end suites with the armhf kepclient under qemu-arm =="
scripts/cross-build.sh
KEPCLIENT_UNDER_TEST="$PWD/build-armhf/kepclient" KEPCLIENT_WRAPPER="$PWD/scripts/qemu-armhf.sh" \
    ctest --test-dir build -L e2e --output-on-failure
(cd build-armhf && cpack -G DEB >/dev/null)
tests/package_test.sh build-armhf armhf "$version"
