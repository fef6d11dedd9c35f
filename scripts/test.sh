#!/usr/bin/env bash
# Installs what is missing, checks the style, builds, and runs the whole test suite: on a plain
# build; on this machine's release packages (scripts/package.sh): lintian, the package test, the DEP-8
# tests (the case tables and the system bus policy) by autopkgtest in a throwaway minimal testbed
# (scripts/testbed.sh), piuparts, and a second build to show they are reproducible; on a build with
# AddressSanitizer and UBSan; kep-sim's scenario reader under libFuzzer; and the armhf packages,
# cross-built in the chroot (scripts/chroot.sh), with the end-to-end suites run once more on their
# kepclient under qemu-arm. Each step says how long it took.
set -euo pipefail
cd "$(dirname "$0")/.."

# gdb-multiarch for the package test, piuparts and adequate for installing the packages, mmdebstrap for
# the chroot and the testbed, autopkgtest, qemu-user for the armhf programs, clang-format and pycodestyle
# for the style check, clang and its libFuzzer for the fuzz build; the build dependencies come from
# debian/control.
scripts/install-deps.sh gdb-multiarch piuparts adequate mmdebstrap autopkgtest qemu-user lintian file \
    clang-format pycodestyle clang-14 libclang-rt-14-dev

# Three steps wait on the network, on dpkg or on the bus more than on the processors, and run alongside
# others, each with its output in a file: making the clean chroot (scripts/chroot.sh), if missing,
# alongside the first steps; autopkgtest (its testbed made first, if missing) alongside the second
# package build; piuparts alongside the sanitizer and fuzz builds. A job still running at the end is
# stopped.
chroot_log=$(mktemp)
autopkgtest_log=$(mktemp)
piuparts_log=$(mktemp)
autopkgtest_job=""
piuparts_job=""
scripts/chroot.sh >"$chroot_log" 2>&1 &
chroot_job=$!
trap 'kill $chroot_job $autopkgtest_job $piuparts_job 2>/dev/null || true
    rm -f "$chroot_log" "$autopkgtest_log" "$piuparts_log"' EXIT
# finish JOB LOG: waits for JOB and shows its output; fails if it failed.
finish() {
    if ! wait "$1"; then
        cat "$2" >&2
        exit 1
    fi
    cat "$2"
}

step_started=$SECONDS
step_name=""
step() {
    [ -z "$step_name" ] || echo "-- $step_name: $((SECONDS - step_started)) s"
    step_started=$SECONDS
    step_name=$1
    [ -z "$step_name" ] || echo "== $step_name =="
}
jobs=$(nproc)
arch=$(dpkg --print-architecture)
version=$(dpkg-parsechangelog -SVersion)
# lint DEB...: lintian's findings; an error or a warning fails the test.
lint() {
    local out
    if ! out=$(lintian --fail-on error,warning "$@" 2>&1); then
        echo "$out" >&2
        echo "lintian: FAIL: errors or warnings" >&2
        exit 1
    fi
    grep -v '^running with root' <<<"$out" || true
}
# ctest names a skipped test only; the reason is in the test's output.
why_skipped() { grep -h ': skipped: ' "$1/Testing/Temporary/LastTest.log" || true; }
# The plain build has run the test suite on the same sources: the package builds skip it.
export DEB_BUILD_OPTIONS=nocheck

step style
scripts/style.sh

step "plain build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure
why_skipped build

step "release packages, $arch"
scripts/package.sh
lint dist/*_"$arch".deb
tests/packages/package_test.sh dist "$arch" "$version"

# autopkgtest: the DEP-8 tests on the installed packages, in a throwaway minimal testbed.
scripts/testbed.sh --no-built-binaries ./ dist/kepclient_"$version"_"$arch".deb \
    dist/kep-sim_"$version"_"$arch".deb >"$autopkgtest_log" 2>&1 &
autopkgtest_job=$!

step "the clean bookworm chroot: made alongside the steps above, or kept from an earlier run"
finish "$chroot_job" "$chroot_log"
chroot_job=""

step "reproducible packages (autopkgtest alongside)"
tests/packages/reproducible_test.sh dist "$arch"

step "autopkgtest: the rest of its time"
if ! wait "$autopkgtest_job"; then
    tail -n 40 "$autopkgtest_log" >&2
    echo "autopkgtest: FAIL (the log's last lines above)" >&2
    exit 1
fi
autopkgtest_job=""
grep -aE ' (passed|PASS)|^systembus test: ' "$autopkgtest_log"

tests/packages/piuparts_test.sh dist "$arch" "$version" >"$piuparts_log" 2>&1 &
piuparts_job=$!

step "AddressSanitizer + UndefinedBehaviorSanitizer build (piuparts alongside)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure
why_skipped build-asan

step "libFuzzer on kep-sim's scenario reader: clang with AddressSanitizer and UBSan"
CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DKEP_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$jobs" --target scenario_fuzz
ctest --test-dir build-fuzz -R '^scenario_fuzz$' --output-on-failure

step "piuparts: the rest of its time"
finish "$piuparts_job" "$piuparts_log"
piuparts_job=""

step "armhf: release packages cross-built in the chroot, the end-to-end suites on their kepclient"
scripts/package.sh armhf
lint dist/*_armhf.deb
tests/packages/package_test.sh dist armhf "$version"
KEPCLIENT_UNDER_TEST="$PWD/build-armhf/kepclient" KEPCLIENT_WRAPPER="$PWD/scripts/qemu-armhf.sh" \
    ctest --test-dir build -L e2e --output-on-failure
step ""
