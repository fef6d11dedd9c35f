# Compiler and linker flags of every build but the sanitizer build: those
# dpkg-buildflags gives Debian's own packages for the target architecture,
# with every hardening feature on (stack protector strong, _FORTIFY_SOURCE=2,
# format security, RELRO, immediate binding; PIE is the compiler's default),
# plus stack clash protection. The optimisation level and -g stay the build
# type's.
#
# Paths of the source and build trees are mapped to fixed names in debug
# information and __FILE__ (-ffile-prefix-map), so that two builds of the
# same commit at different paths give the same programs, build-ids included.

# Under dh (debian/rules) the same flags come from dpkg-buildflags through the environment, and this
# is switched off.
option(KEP_HARDENING "Compile and link with dpkg-buildflags' hardening flags" ON)

# One item each, so that a blank in a path survives. The build tree is
# mapped after the source tree: the last matching map wins, and the build
# tree may lie inside the source tree.
add_compile_options(
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=."
    "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build")
if(NOT KEP_HARDENING OR KEP_SANITIZE)
    return()
endif()

find_program(KEP_DPKG_BUILDFLAGS dpkg-buildflags)
if(NOT KEP_DPKG_BUILDFLAGS)
    message(FATAL_ERROR "dpkg-buildflags not found (Debian: dpkg-dev)")
endif()

# The Debian architecture of the programs built, from the compiler's multiarch directory (whatever
# name the build gives the processor: arm, armv7l, ...).
set(KEP_DEB_HOST_ARCH "")
if(CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
        OUTPUT_VARIABLE KEP_DEB_HOST_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT KEP_DEB_HOST_ARCH)
    execute_process(COMMAND dpkg --print-architecture
        OUTPUT_VARIABLE KEP_DEB_HOST_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()

# kep_buildflags(VAR NAME): VAR is the list of dpkg-buildflags' NAME flags.
# The path mapping is left out here (dpkg-buildflags would take the current
# directory as the source tree) and set below for both trees.
function(kep_buildflags var name)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E env
            DEB_HOST_ARCH=${KEP_DEB_HOST_ARCH}
            "DEB_BUILD_MAINT_OPTIONS=hardening=+all reproducible=-fixfilepath,-fixdebugpath"
            "DEB_${name}_MAINT_STRIP=-g -O2"
            ${KEP_DPKG_BUILDFLAGS} --get ${name}
        OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    separate_arguments(flags UNIX_COMMAND "${flags}")
    set(${var} ${flags} PARENT_SCOPE)
endfunction()

kep_buildflags(KEP_HARDENING_CPPFLAGS CPPFLAGS)
kep_buildflags(KEP_HARDENING_CXXFLAGS CXXFLAGS)
kep_buildflags(KEP_HARDENING_LDFLAGS LDFLAGS)

add_compile_options(${KEP_HARDENING_CPPFLAGS} ${KEP_HARDENING_CXXFLAGS} -fstack-clash-protection)
add_link_options(${KEP_HARDENING_LDFLAGS})
