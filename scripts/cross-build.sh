#!/usr/bin/env bash
# Cross-builds the project for 32-bit ARM hard-float (armhf) into build-armhf/
# with cmake/toolchain-armhf.cmake, preparing the machine and the armhf
# sysroot first if that has not been done (scripts/cross-prepare.sh).
# Extra arguments go to the CMake configure step, e.g. -DBUILD_TESTING=ON.
# KEP_ARMHF_SYSROOT, when set in the environment, overrides the sysroot path.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=${KEP_ARMHF_SYSROOT:-$PWD/.cross/sysroot-armhf}
builddir=build-armhf

if [ ! -f "$sysroot/.kep-sysroot-packages" ] || ! command -v arm-linux-gnueabihf-g++ >/dev/null; then
    scripts/cross-prepare.sh
fi

cmake -S . -B "$builddir" --no-warn-unused-cli \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
    -DKEP_ARMHF_SYSROOT="$sysroot" \
    -DBUILD_TESTING=OFF \
    "$@" >/dev/null
cmake --build "$builddir" -j"$(nproc)"

targets=$(cmake --build "$builddir" --target help)
for program in kepclient kep-sim; do
    if [[ $'\n'$targets$'\n' == *$'\n'"... $program"$'\n'* ]] && [ -f "$builddir/$program" ]; then
        file "$builddir/$program"
    fi
done
