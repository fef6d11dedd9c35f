#!/usr/bin/env bash
# pkg-config for the armhf sysroot (cmake/toolchain-armhf.cmake makes CMake
# use it). pkg-config (pkgconf) mangles a PKG_CONFIG_SYSROOT_DIR that holds a
# blank, so it is given a stand-in without one; in what it prints the stand-in
# becomes the sysroot's path with each blank escaped as "\ ", the way
# pkg-config itself writes a blank inside a flag and CMake reads it.
# The sysroot's path is KEP_ARMHF_SYSROOT in the environment.
set -euo pipefail
stand_in=/kep-armhf-sysroot
escaped=${KEP_ARMHF_SYSROOT//\\/\\\\}
escaped=${escaped// /\\ }
out=$(PKG_CONFIG_SYSROOT_DIR=$stand_in pkg-config "$@")
[ -z "$out" ] || printf '%s\n' "${out//$stand_in/$escaped}"
