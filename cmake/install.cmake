# What the install step puts in place besides the programs, in the two
# components that become the two Debian packages:
#   client  kepclient's manual page and bash completion;
#   sim     kep-sim's manual page (which also describes its scenarios), the
#           interface description and the system bus policy that
#           "kep-sim --system" needs, under kep-sim's own data directory.
# Nothing goes where a bus would read it: the policy takes effect only once
# an administrator copies it into /etc/dbus-1/system.d.
# Manual pages and changelogs are compressed as Debian wants them.
include(GNUInstallDirs)

set(KEP_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)
find_program(KEP_GZIP gzip REQUIRED)

# kep_gzipped(VAR SOURCE NAME): VAR is the build tree's NAME.gz made from SOURCE.
function(kep_gzipped var source name)
    set(copy ${PROJECT_BINARY_DIR}/compressed/${name})
    add_custom_command(OUTPUT ${copy}.gz
        COMMAND ${CMAKE_COMMAND} -E copy ${source} ${copy}
        COMMAND ${KEP_GZIP} -9nf ${copy}
        DEPENDS ${source} VERBATIM)
    set(${var} ${copy}.gz PARENT_SCOPE)
endfunction()

kep_gzipped(kepclient_man ${KEP_SOURCE_ROOT}/doc/kepclient.1 kepclient.1)
kep_gzipped(kepsim_man ${KEP_SOURCE_ROOT}/doc/kep-sim.1 kep-sim.1)
kep_gzipped(changelog ${KEP_SOURCE_ROOT}/packaging/changelog changelog)
add_custom_target(compressed_docs ALL DEPENDS ${kepclient_man} ${kepsim_man} ${changelog})

set(package_docs ${KEP_SOURCE_ROOT}/packaging/copyright ${changelog})

install(FILES ${kepclient_man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT client)
install(FILES ${KEP_SOURCE_ROOT}/packaging/kepclient.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME kepclient COMPONENT client)
install(FILES ${package_docs} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kepclient COMPONENT client)

install(FILES ${kepsim_man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT sim)
install(FILES ${KEP_SIM_POLICY} ${KEP_INTERFACE_XML}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kep-sim COMPONENT sim)
install(FILES ${package_docs} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kep-sim COMPONENT sim)
