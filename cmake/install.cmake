# What `cmake --install` puts under the prefix: the public headers, the static libraries, the
# `korvalin` program, a CMake package (find_package(korvalin_client) gives korvalin::client,
# korvalin::service, korvalin::embedded, and korvalin::server as the component "server") and
# pkg-config files (korvalin_client.pc, korvalin_embedded.pc). Both packages are relocatable:
# they find the prefix from where they lie, so `cmake --install build --prefix DIR` works.
include(CMakePackageConfigHelpers)

set(KORVALIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/korvalin_client)
set(KORVALIN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/korvalin_client
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(TARGETS korvalin_client korvalin_service korvalin_embedded
        EXPORT korvalin_client_targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The server is a component of its own (it links OpenSSL's SSL library): only who asks for it
# needs that at the link.
install(TARGETS korvalin_server
        EXPORT korvalin_server_targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS korvalin RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)

install(EXPORT korvalin_client_targets NAMESPACE korvalin::
        FILE korvalin_client-targets.cmake DESTINATION ${KORVALIN_CMAKE_DIR} COMPONENT dev)
install(EXPORT korvalin_server_targets NAMESPACE korvalin::
        FILE korvalin_client-server-targets.cmake DESTINATION ${KORVALIN_CMAKE_DIR} COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/korvalin_client-config.cmake.in
                              ${PROJECT_BINARY_DIR}/korvalin_client-config.cmake
                              INSTALL_DESTINATION ${KORVALIN_CMAKE_DIR})
# Before 1.0 a minor version may change the interface: a request for 0.1 accepts 0.1.x only.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/korvalin_client-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/korvalin_client-config.cmake
              ${PROJECT_BINARY_DIR}/korvalin_client-config-version.cmake
        DESTINATION ${KORVALIN_CMAKE_DIR} COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own directory.
file(RELATIVE_PATH KORVALIN_PC_TO_PREFIX /prefix/${KORVALIN_PKGCONFIG_DIR} /prefix)
foreach(pc korvalin_client korvalin_embedded)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${KORVALIN_PKGCONFIG_DIR} COMPONENT dev)
endforeach()
