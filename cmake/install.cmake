# What the install step puts in place besides the programs; debian/*.install share it out between
# the two packages, and dh compresses the manual pages:
#   kepclient  its manual page and bash completion;
#   kep-sim    its manual page (which also describes its scenarios) and bash completion; the interface
#              description and the system bus policy that "kep-sim --system" needs, under kep-sim's own
#              data directory.
# Nothing goes where a bus would read it: the policy takes effect only once an administrator copies
# it into /etc/dbus-1/system.d.
include(GNUInstallDirs)

set(KEP_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)

install(FILES ${KEP_SOURCE_ROOT}/doc/kepclient.1 ${KEP_SOURCE_ROOT}/doc/kep-sim.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${KEP_SOURCE_ROOT}/client/kepclient.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kepclient)
install(FILES ${KEP_SOURCE_ROOT}/sim/kep-sim.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kep-sim)
install(FILES ${KEP_SIM_POLICY} ${KEP_INTERFACE_XML} DESTINATION ${CMAKE_INSTALL_DATADIR}/kep-sim)
