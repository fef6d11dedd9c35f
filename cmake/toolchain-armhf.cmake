# CMake toolchain file: cross-compiles for 32-bit ARM hard-float Linux
# (Debian's armhf, arm-linux-gnueabihf) on a Debian x86-64 build machine.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# - Compilers, C library and libstdc++ are those of Debian's cross toolchain
#   (crossbuild-essential-armhf), which carries its own armhf C library and
#   libstdc++ headers; no --sysroot is given to the compiler.
# - Qt 5 (headers, CMake config files, libraries) and the libraries Qt
#   depends on come from an armhf sysroot made by scripts/cross-prepare.sh,
#   KEP_ARMHF_SYSROOT (default: .cross/sysroot-armhf in the source tree).
# - Code generators (moc, qdbusxml2cpp, ...) are the build machine's own,
#   see armhf-host-qt-tools.cmake.
# - Programs built are run through qemu-arm where CMake/CTest need to run
#   them (CMAKE_CROSSCOMPILING_EMULATOR); scripts/qemu-armhf.sh does the same
#   by hand.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KEP_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${KEP_ARMHF_TRIPLET})

set(CMAKE_C_COMPILER ${KEP_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KEP_ARMHF_TRIPLET}-g++)

# --- the sysroot ----------------------------------------------------------------
if(NOT KEP_ARMHF_SYSROOT)
    if(DEFINED ENV{KEP_ARMHF_SYSROOT} AND NOT "$ENV{KEP_ARMHF_SYSROOT}" STREQUAL "")
        set(KEP_ARMHF_SYSROOT "$ENV{KEP_ARMHF_SYSROOT}")
    else()
        set(KEP_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../.cross/sysroot-armhf")
    endif()
endif()
get_filename_component(KEP_ARMHF_SYSROOT "${KEP_ARMHF_SYSROOT}" ABSOLUTE)
set(KEP_ARMHF_SYSROOT "${KEP_ARMHF_SYSROOT}" CACHE PATH
    "armhf sysroot holding Qt 5 and its dependencies (made by scripts/cross-prepare.sh)")
# The toolchain file is read again for every try_compile() project.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KEP_ARMHF_SYSROOT)

if(NOT EXISTS "${KEP_ARMHF_SYSROOT}/usr/lib/${KEP_ARMHF_TRIPLET}/cmake/Qt5Core/Qt5CoreConfig.cmake")
    message(FATAL_ERROR
        "No armhf Qt 5 in KEP_ARMHF_SYSROOT=${KEP_ARMHF_SYSROOT}; "
        "run scripts/cross-prepare.sh first.")
endif()

# Packages (Qt5*Config.cmake), libraries and headers are looked up in the
# sysroot only; programs on the build machine only.
set(CMAKE_FIND_ROOT_PATH "${KEP_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Qt's libraries need theirs (libicu, libpcre2-16, libssl, ...) at link time:
# let the linker find them in the sysroot. Nothing is recorded in the binary.
# One option each, so that a blank in the sysroot's path survives.
add_link_options(
    "LINKER:-rpath-link,${KEP_ARMHF_SYSROOT}/lib/${KEP_ARMHF_TRIPLET}"
    "LINKER:-rpath-link,${KEP_ARMHF_SYSROOT}/usr/lib/${KEP_ARMHF_TRIPLET}")
# On the target these are the system library directories: keep CMake from
# writing the build machine's path to them into the binaries' RUNPATH.
list(APPEND CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES
    "${KEP_ARMHF_SYSROOT}/lib/${KEP_ARMHF_TRIPLET}"
    "${KEP_ARMHF_SYSROOT}/usr/lib/${KEP_ARMHF_TRIPLET}")
list(REMOVE_DUPLICATES CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES)

# pkg-config (GLib for kep-sim) reads the sysroot's .pc files, never the build
# machine's, and its paths lead into the sysroot, through a wrapper that
# keeps a blank in the sysroot's path.
set(ENV{PKG_CONFIG_LIBDIR}
    "${KEP_ARMHF_SYSROOT}/usr/lib/${KEP_ARMHF_TRIPLET}/pkgconfig:${KEP_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{KEP_ARMHF_SYSROOT} "${KEP_ARMHF_SYSROOT}")
set(PKG_CONFIG_EXECUTABLE "${CMAKE_CURRENT_LIST_DIR}/pkg-config-armhf.sh" CACHE FILEPATH
    "pkg-config for the armhf sysroot")

# --- host code generators -------------------------------------------------------------
# Included at the end of project(), before the project's find_package(Qt5).
set(CMAKE_PROJECT_INCLUDE "${CMAKE_CURRENT_LIST_DIR}/armhf-host-qt-tools.cmake")

# --- running armhf programs ----------------------------------------------------------
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(KEP_QEMU_ARM qemu-arm)
    if(KEP_QEMU_ARM)
        set(CMAKE_CROSSCOMPILING_EMULATOR "${KEP_QEMU_ARM};-L;${KEP_ARMHF_SYSROOT}")
    endif()
endif()
