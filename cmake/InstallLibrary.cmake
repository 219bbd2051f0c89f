# What programs are built with: the client library (PortService::client), the servants to host in a
# process of one's own (PortService::host), their headers, the interface definition, and how CMake
# and pkg-config find them. Component dev.
include(CMakePackageConfigHelpers)

# What hosts servants: roles and background tasks.
add_library(portsvc_host INTERFACE)
add_library(PortService::host ALIAS portsvc_host)
target_link_libraries(portsvc_host INTERFACE portsvc_roles portsvc_persistence)

set(exported
    broker ace idl platform orb middleware persistence ports core roles client host)
foreach(name ${exported})
  set_target_properties(portsvc_${name} PROPERTIES EXPORT_NAME ${name})
  list(APPEND exported_targets portsvc_${name})
endforeach()
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/PortService)
install(TARGETS ${exported_targets} EXPORT PortService
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        PUBLIC_HEADER DESTINATION ${PORTSVC_INCLUDEDIR} COMPONENT dev)
install(EXPORT PortService NAMESPACE PortService:: FILE PortServiceTargets.cmake
        DESTINATION ${package_dir} COMPONENT dev)

install(DIRECTORY client/include/ DESTINATION ${PORTSVC_INCLUDEDIR} COMPONENT dev)
# Without the headers that the broker's folder keeps for itself.
foreach(folder idl platform middleware persistence ports core roles)
  install(DIRECTORY ${folder} DESTINATION ${PORTSVC_INCLUDEDIR} COMPONENT dev
          FILES_MATCHING PATTERN "*.h" PATTERN "*.idl"
          REGEX "orb/(connections_omniorb|endpoint|omniorb_internals|shutdown|tls)[.]h$" EXCLUDE)
endforeach()
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libportservice-dev/examples
        COMPONENT dev USE_SOURCE_PERMISSIONS)

configure_package_config_file(
  cmake/PortServiceConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/PortServiceConfig.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS PORTSVC_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/PortServiceConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/PortServiceConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/PortServiceConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# The other broker has no pkg-config files to refer to.
if(PORTSVC_ORB STREQUAL "OMNIORB")
  file(RELATIVE_PATH pkgconfig_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  foreach(name client host)
    configure_file(cmake/portservice-${name}.pc.in portservice-${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/portservice-${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
  endforeach()
endif()
