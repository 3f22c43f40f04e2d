# The installed library: the shared library, its C header, a CMake package
# and a pkg-config file, all relocatable (nothing holds the prefix it was
# installed under). Only the C interface is public: the core library and the
# internal headers stay in the build tree.
#
# Components: library (the shared library alone), dev (header, link name,
# CMake package, pkg-config file; on Windows the import libraries and the
# .def), tools (the programs, their manual pages, the bash completion).
include(CMakePackageConfigHelpers)

set(MODBUS_VUKRA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/modbus_vukra)

install(TARGETS modbus_vukra EXPORT modbus_vukra-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/include/modbus_vukra.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT modbus_vukra-targets NAMESPACE modbus_vukra:: DESTINATION ${MODBUS_VUKRA_CMAKE_DIR}
  FILE modbus_vukra-targets.cmake COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/modbus_vukra-config.cmake.in
  ${PROJECT_BINARY_DIR}/modbus_vukra-config.cmake INSTALL_DESTINATION ${MODBUS_VUKRA_CMAKE_DIR})
# 0.x releases share the library's SONAME (libmodbus_vukra.so.0), so any of
# them satisfies a request for another of the same major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/modbus_vukra-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/modbus_vukra-config.cmake ${PROJECT_BINARY_DIR}/modbus_vukra-config-version.cmake
  DESTINATION ${MODBUS_VUKRA_CMAKE_DIR} COMPONENT dev)

# pkg-config finds the prefix from where the .pc file lies.
file(RELATIVE_PATH MODBUS_VUKRA_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" MODBUS_VUKRA_PC_TO_PREFIX "${MODBUS_VUKRA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/modbus_vukra.pc.in ${PROJECT_BINARY_DIR}/modbus_vukra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/modbus_vukra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(WIN32)
  # What a Windows developer links with: the mingw import library comes
  # with the target; Microsoft's linker takes modbus_vukra.lib; the .def
  # makes either again.
  if(TARGET modbus_vukra_msvc_lib)
    install(FILES ${PROJECT_BINARY_DIR}/src/modbus_vukra.lib DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  endif()
  install(FILES ${PROJECT_BINARY_DIR}/src/modbus_vukra.def DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/windows.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
endif()

# The Python package (python/modbus_vukra, pure Python over the shared
# library) where Debian's python3 finds it: component python.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/modbus_vukra DESTINATION lib/python3/dist-packages COMPONENT python
  PATTERN __pycache__ EXCLUDE)
