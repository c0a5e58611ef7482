# `make package`: Debian packages of the shared library (libtqble1), the headers, static
# library and package files (libtqble-dev) and the command-line tool (tqble).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tqble)
set(CPACK_PACKAGE_VENDOR "TQBle")
set(CPACK_PACKAGE_CONTACT "TQBle maintainers <tqble@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client SDK for EV charging posts over Bluetooth Low Energy")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tool)
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

include(CPack)
