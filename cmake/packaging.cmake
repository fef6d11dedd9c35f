# Debian packages with CPack: `cpack -G DEB` in a build folder gives one
# package per install component (cmake/install.cmake):
#   kepclient_<version>_<arch>.deb  the client, its manual page, its completion;
#   kep-sim_<version>_<arch>.deb    the simulator, its manual page and notes,
#                                   the interface description and its policy.
# The architecture follows the compiler: armhf for the cross build, the build
# machine's own otherwise. The packages install under the build's prefix, the
# one compiled into the programs (kep-sim names its policy's path).
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL client sim)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "kep developers <kep-dev@calyra.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Version floors below are those dpkg-shlibdeps gives; on armhf the
# unwinder's symbols that the programs use are versioned GCC_3.5.
set(kep_libgcc "libgcc-s1 (>= 3.0)")
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(kep_libgcc "libgcc-s1 (>= 3.5)")
endif()
set(CPACK_STRIP_FILES ON)
# Each package's own description below has its summary as first line.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

# Depends: the packages of the shared libraries each program links (its
# NEEDED entries, as Debian 12 names them); tests/package_test.sh holds them
# to the programs.
set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME kepclient)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS
    "libc6 (>= 2.34), ${kep_libgcc}, libqt5core5a (>= 5.15.1), libqt5dbus5 (>= 5.0.2), libstdc++6 (>= 5)")
set(CPACK_DEBIAN_CLIENT_DESCRIPTION [[
command-line client of the kep network-connection manager
kepclient talks to kep, the connection manager of the device, on the D-Bus
system bus: status, modes, soft access point, scans, WPS, wireless networks,
IP settings and log level, one command per run. It grants itself no access:
the manager's own package decides who may call it.]])

# kep-sim starts dbus-daemon for its private buses.
set(CPACK_DEBIAN_SIM_PACKAGE_NAME kep-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS
    "libc6 (>= 2.34), ${kep_libgcc}, libglib2.0-0 (>= 2.39.90), libstdc++6 (>= 5.2), dbus-daemon")
set(CPACK_DEBIAN_SIM_DESCRIPTION [[
simulated kep network-connection manager for trying kepclient
kep-sim serves the kep interface on a private bus, on a given bus or on the
system bus, with its state and answers set by a scenario file, and runs a
command against it. Its system bus policy is installed inert under
/usr/share/kep-sim; it is meant for development machines, never for a
device running the real manager.]])

include(CPack)
