# The Debian packages, made by "cpack -G DEB" in a tree configured with -DCMAKE_INSTALL_PREFIX=/usr:
# port-service, and libportservice-dev where there is something to put in.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME port-service)
set(CPACK_PACKAGE_CONTACT "Port service maintainers <maintainers@port-service.example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/compress_manuals.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
get_cmake_property(components COMPONENTS)
set(CPACK_COMPONENTS_ALL service)
if(dev IN_LIST components)
  list(APPEND CPACK_COMPONENTS_ALL dev)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The service.
set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME port-service)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_SERVICE_PACKAGE_SUGGESTS "omniorb-nameserver, openssl")
set(CPACK_DEBIAN_SERVICE_DESCRIPTION
    "named message channels over a CORBA broker
Packet ports, whose owner takes packets and answers them, and event boxes, held
in the memory of a main server and mirrored by sub servers on other machines.

This package holds the server, the command-line client portctl, units for
systemd, and the documentation.")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
    ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)

# What programs are built with.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libportservice-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libomniorb4-dev, omniidl, libace-dev, libloki-dev, libboost-dev, libfmt-dev, libssl-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS port-service)
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "named message channels over a CORBA broker - development files
Packet ports, whose owner takes packets and answers them, and event boxes, held
in the memory of a main server and mirrored by sub servers on other machines.

This package holds the C++ client library, the servants for programs that host
a server themselves, and the files that CMake and pkg-config find them by.")

# What every Debian package has under its own name.
find_program(GZIP gzip)
foreach(component service dev)
  if(NOT component IN_LIST CPACK_COMPONENTS_ALL OR NOT GZIP)
    continue()
  endif()
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(dir ${CMAKE_BINARY_DIR}/packaging/${package})
  configure_file(packaging/debian/changelog ${dir}/changelog @ONLY)
  execute_process(COMMAND ${GZIP} -9nf ${dir}/changelog)
  install(FILES packaging/debian/copyright ${dir}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_FULL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

include(CPack)
