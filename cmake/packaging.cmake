# Debian packages from the installed tree: `cpack -G DEB` in the build directory makes
#   libkorvalin-client-dev  headers, static libraries, CMake package, pkg-config files
#   korvalin                the `korvalin` program (demo, serve, admin, ...)
# The static libraries' own dependencies are met by Debian's -dev packages; the program's
# shared libraries are found by dpkg-shlibdeps. docs/packaging.md.
set(CPACK_PACKAGE_NAME korvalin-client)
set(CPACK_PACKAGE_VENDOR "korvalin_client developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Debug information stays out of the packages: the program is stripped, the static
# libraries lose their debug sections (cmake/strip_static_libs.cmake).
set(CPACK_STRIP_FILES ON)
set(CPACK_KORVALIN_STRIP ${CMAKE_STRIP})
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/strip_static_libs.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL dev program)
if(TARGET korvalin_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "korvalin_client developers <korvalin-dev@example.org>")

# The first line of a description is the package's summary.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkorvalin-client-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "C++20 client library for a service that runs experiments on device groups
Headers, static libraries, CMake package and pkg-config files of korvalin_client.
find_package(korvalin_client) gives korvalin::client and korvalin::embedded (the client
with an embedded service, so that a program runs on one machine with no server);
pkg-config knows them as korvalin_client and korvalin_embedded.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "nlohmann-json3-dev (>= 3.10), libsqlite3-dev, libcurl4-openssl-dev, libssl-dev, libhdf5-dev, libstb-dev, pkgconf | pkg-config")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "korvalin")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME korvalin)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION
    "run, serve and administer a korvalin experiment service
korvalin demo runs a whole experiment on the embedded service; korvalin serve serves a
store over HTTP to a team; korvalin admin manages its users, tokens and rights.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-korvalin-client)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= ${KORVALIN_PYTHON_VERSION}), python3 (<< ${KORVALIN_PYTHON_NEXT_VERSION}), python3-numpy")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-pandas, python3-matplotlib")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "Python bindings of korvalin_client
The package korvalin_client: CloudGroup, Experiment and Result (columns as NumPy arrays)
from Python, on the embedded service or a korvalin serve server.")

include(CPack)
