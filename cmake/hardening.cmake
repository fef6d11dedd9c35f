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

find_program(KEP_DPKG_BUILDFLAGS dpkg-buildflags)
if(NOT KEP_DPKG_BUILDFLAGS)
    message(FATAL_ERROR "dpkg-buildflags not found (Debian: dpkg-dev)")
endif()

# The Debian architecture of the programs built.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
    set(KEP_DEB_HOST_ARCH armhf)
else()
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

if(NOT KEP_SANITIZE)
    add_compile_options(${KEP_HARDENING_CPPFLAGS} ${KEP_HARDENING_CXXFLAGS} -fstack-clash-protection)
    add_link_options(${KEP_HARDENING_LDFLAGS})
endif()

# One item each, so that a blank in a path survives. The build tree is
# mapped after the source tree: the last matching map wins, and the build
# tree may lie inside the source tree.
add_compile_options(
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=."
    "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build")
