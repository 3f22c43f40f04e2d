# Debian packages of the install's components (make package, or cpack -G DEB
# in the build folder):
#   libmodbus-vukra0     the shared library
#   libmodbus-vukra-dev  the header, the link name, the CMake package, the pkg-config file
#   vukra-tools          vukra, vukra-sim, vukra-ufs, vukra-gen, their manual pages, the completion
#   python3-modbus-vukra the Python package modbus_vukra, over the library's package
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME modbus-vukra)
set(CPACK_PACKAGE_VENDOR "modbus_vukra")
set(CPACK_PACKAGE_CONTACT "modbus_vukra developers <modbus-vukra@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Host access to a vukra device on a serial port")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL library dev tools python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libmodbus-vukra${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "The shared library. Registers by their names in a register table, and the device's remote
filesystem, through a C interface.")
# A shlibs file for the packages that hold a shared library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmodbus-vukra-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libmodbus-vukra${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "The development files: the C header, the CMake package (find_package(modbus_vukra)) and the
pkg-config file (modbus_vukra).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vukra-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# vukra mount calls fusermount3 (the library, libfuse3, comes by SHLIBDEPS).
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "fuse3")
# The system user vukra-serve@.service runs as.
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/tools/systemd/postinst)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "The command-line tools: vukra reads and writes registers and files of a device, vukra-sim plays a
device on a pseudo-terminal, vukra-ufs prepares SD card images and vukra-gen
writes the device side's C sources and HTML pages from a register table.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-modbus-vukra)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, libmodbus-vukra${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "The Python package modbus_vukra: registers by name, the device's files as Python file
objects and the image transfer with progress, over the shared library through ctypes.")

include(CPack)
