# Included at the end of project() by toolchain-armhf.cmake (through
# CMAKE_PROJECT_INCLUDE), so before the project looks for Qt 5.
#
# The armhf Qt 5 CMake config files in the sysroot point Qt's tools (moc,
# rcc, qdbusxml2cpp, ...) at armhf executables inside the sysroot, which are
# not there and could not run on the build machine anyway. Those config files
# create the imported tool targets only if they do not exist yet, so creating
# them here first, pointing at the build machine's Qt 5 tools, makes AUTOMOC
# and qt5_add_dbus_interface() use the host's tools.
# moc's output depends on the target only through the compiler's predefined
# macros, which AUTOMOC takes from the cross compiler.

set(KEP_HOST_QT_BINDIR "/usr/lib/qt5/bin" CACHE PATH
    "Directory of the build machine's Qt 5 tools (Debian: qtbase5-dev-tools, qt5-qmake-bin)")

foreach(_kep_tool IN ITEMS moc rcc qdbusxml2cpp qdbuscpp2xml qmake)
    if(NOT TARGET Qt5::${_kep_tool})
        set(_kep_location "${KEP_HOST_QT_BINDIR}/${_kep_tool}")
        if(NOT EXISTS "${_kep_location}")
            message(FATAL_ERROR
                "Host Qt 5 tool ${_kep_location} is missing; "
                "run scripts/cross-prepare.sh or set KEP_HOST_QT_BINDIR.")
        endif()
        add_executable(Qt5::${_kep_tool} IMPORTED GLOBAL)
        set_target_properties(Qt5::${_kep_tool} PROPERTIES
            IMPORTED_LOCATION "${_kep_location}")
    endif()
endforeach()
unset(_kep_tool)
unset(_kep_location)
