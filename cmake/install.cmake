# Installs the manual page, the bash completion and the system bus policy.
# The programs and the interface file are installed by the targets' own rules.
include(GNUInstallDirs)

set(KEP_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)

install(FILES ${KEP_SOURCE_ROOT}/doc/kepclient.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${KEP_SOURCE_ROOT}/completion/kepclient.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME kepclient)
install(FILES ${KEP_SOURCE_ROOT}/dbus/com.calyra.kep.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
