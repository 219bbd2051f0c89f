# The installation of the programs and what belongs to running them: the component "service". What
# programs of others are built with is the component "dev". Paths are written into the units, so choose
# CMAKE_INSTALL_PREFIX when configuring, not when installing.

include(GNUInstallDirs)

set(PORTSVC_DOC_DIR ${CMAKE_INSTALL_FULL_DATAROOTDIR}/doc/port-service)
set(PORTSVC_CONFIGURATION_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/port-service)

install(TARGETS port_server portctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT service)
install(FILES idl/port_service.idl DESTINATION ${CMAKE_INSTALL_DATADIR}/idl/port-service
        COMPONENT service)
install(FILES README.md CHANGELOG.md DESTINATION ${PORTSVC_DOC_DIR} COMPONENT service)
install(DIRECTORY docs DESTINATION ${PORTSVC_DOC_DIR} COMPONENT service)
install(FILES packaging/example.conf packaging/servers.ini DESTINATION ${PORTSVC_CONFIGURATION_DIR}
        COMPONENT service)

# One text for both roles.
configure_file(packaging/unit_service.in ${CMAKE_BINARY_DIR}/packaging/unit_service @ONLY)
file(READ ${CMAKE_BINARY_DIR}/packaging/unit_service PORTSVC_UNIT_SERVICE)
foreach(role main sub)
  set(unit port-service-${role}@.service)
  configure_file(packaging/${unit}.in ${CMAKE_BINARY_DIR}/packaging/${unit} @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${unit} DESTINATION lib/systemd/system
          COMPONENT service)
endforeach()
install(FILES packaging/port-service.sysusers DESTINATION lib/sysusers.d
        RENAME port-service.conf COMPONENT service)

include(${PROJECT_SOURCE_DIR}/packaging/packages.cmake)
