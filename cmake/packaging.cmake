# The control files of the Debian packages, written into the build tree's
# debian-control/ at configure time; scripts/package.sh installs each
# component (cmake/install.cmake), splits off the debug information, adds
# Installed-Size (and Build-Ids) and builds the packages with dpkg-deb:
#   kepclient_<version>_<arch>.deb         the client, its manual page, its completion;
#   kep-sim_<version>_<arch>.deb           the simulator, its manual page and notes,
#                                          the interface description and its policy;
#   kepclient-dbgsym, kep-sim-dbgsym       their programs' debug information.
# The architecture follows the compiler: armhf for the cross build, the build
# machine's own otherwise (KEP_DEB_HOST_ARCH, cmake/hardening.cmake). The
# packages install under the build's prefix, the one compiled into the
# programs (kep-sim names its policy's path).
set(kep_maintainer "kep developers <kep-dev@calyra.invalid>")
set(kep_control_dir ${PROJECT_BINARY_DIR}/debian-control)
# Version floors below are those dpkg-shlibdeps gives; on armhf the
# unwinder's symbols that the programs use are versioned GCC_3.5.
set(kep_libgcc "libgcc-s1 (>= 3.0)")
if(KEP_DEB_HOST_ARCH STREQUAL "armhf")
    set(kep_libgcc "libgcc-s1 (>= 3.5)")
endif()

# kep_control(PACKAGE SECTION DEPENDS DESCRIPTION): the control file of
# PACKAGE, whose DESCRIPTION has its summary as first line; and that of
# PACKAGE-dbgsym, as Debian's debhelper makes it.
function(kep_control package section depends description)
    string(STRIP "${description}" description)
    string(REPLACE "\n" "\n " description "${description}")
    file(WRITE ${kep_control_dir}/${package}.control
"Package: ${package}
Source: ${PROJECT_NAME}
Version: ${PROJECT_VERSION}
Architecture: ${KEP_DEB_HOST_ARCH}
Maintainer: ${kep_maintainer}
Depends: ${depends}
Section: ${section}
Priority: optional
Description: ${description}
")
    file(WRITE ${kep_control_dir}/${package}-dbgsym.control
"Package: ${package}-dbgsym
Source: ${PROJECT_NAME}
Version: ${PROJECT_VERSION}
Auto-Built-Package: debug-symbols
Architecture: ${KEP_DEB_HOST_ARCH}
Maintainer: ${kep_maintainer}
Depends: ${package} (= ${PROJECT_VERSION})
Section: debug
Priority: optional
Description: debug symbols for ${package}
")
endfunction()

# Depends: the packages of the shared libraries each program links (its
# NEEDED entries, as Debian 12 names them); tests/package_test.sh holds them
# to the programs.
kep_control(kepclient net
    "libc6 (>= 2.34), ${kep_libgcc}, libqt5core5a (>= 5.15.1), libqt5dbus5 (>= 5.0.2), libstdc++6 (>= 5)" [[
command-line client of the kep network-connection manager
kepclient talks to kep, the connection manager of the device, on the D-Bus
system bus: status, modes, soft access point, scans, WPS, wireless networks,
IP settings and log level, one command per run. It grants itself no access:
the manager's own package decides who may call it.]])

# kep-sim starts dbus-daemon for its private buses.
kep_control(kep-sim devel
    "libc6 (>= 2.34), ${kep_libgcc}, libglib2.0-0 (>= 2.39.90), libstdc++6 (>= 5.2), dbus-daemon" [[
simulated kep network-connection manager for trying kepclient
kep-sim serves the kep interface on a private bus, on a given bus or on the
system bus, with its state and answers set by a scenario file, and runs a
command against it. On a device it records a command's dialog with the real
manager, as the command's own user, for replay elsewhere. Its system bus
policy is installed inert under /usr/share/kep-sim; enabled, it lets root
own the manager's name, which is for development machines only.]])

# The install component of each package's files.
file(WRITE ${kep_control_dir}/components "kepclient client\nkep-sim sim\n")
