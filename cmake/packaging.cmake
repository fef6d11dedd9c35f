# Debian packages with CPack: `cpack -G DEB` in a build folder gives
# kepclient_<version>_<architecture>.deb with everything the install step
# puts in place. The architecture follows the compiler: armhf for the
# cross build, the build machine's own otherwise.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kepclient)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "kepclient talks to the kep network-connection manager on the D-Bus system bus:\n"
    "status, modes, soft AP, scans, WPS, wireless networks, IP settings, log level.\n"
    "kep-sim simulates the manager for trying the client without a device.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "kep developers <kep-dev@calyra.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()
# The shared libraries the programs link, as Debian 12 names them, and the
# bus they talk on.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1 (>= 3.5), libqt5core5a (>= 5.15.1), libqt5dbus5 (>= 5.15.1), libqt5network5 (>= 5.15.1), dbus")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bash-completion")
set(CPACK_STRIP_FILES ON)
include(CPack)
