# `make package`: Debian packages of the shared library (libtqble1), the headers, static
# library and package files (libtqble-dev), the command-line tool (tqble) and, when built,
# the Python package (python3-tqble).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tqble)
set(CPACK_PACKAGE_VENDOR "TQBle")
set(CPACK_PACKAGE_CONTACT "TQBle maintainers <tqble@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client SDK for EV charging posts over Bluetooth Low Energy")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tool)
if(TQBLE_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)  # run-time dependencies from dpkg-shlibdeps
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtqble${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_LIB_DESCRIPTION "TQBle SDK: shared library")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtqble-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS lib)
set(CPACK_COMPONENT_DEV_DESCRIPTION "TQBle SDK: headers, static library, CMake and pkg-config files")
# What the static library and the package files ask of a consumer.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libicu-dev, pkg-config, g++ (>= 4:12)")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tqble)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "TQBle SDK: the tqble command-line tool (frame, decode, demo)")

# The module links the library statically and is built for Debian's python3 of this release.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tqble)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
math(EXPR TQBLE_PY_NEXT_MINOR "${Python_VERSION_MINOR} + 1")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= ${Python_VERSION_MAJOR}.${Python_VERSION_MINOR}), \
python3 (<< ${Python_VERSION_MAJOR}.${TQBLE_PY_NEXT_MINOR})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "TQBle SDK: the Python package tqble (asyncio client, simulator)")

include(CPack)
