# Installs headers, the shared library, a CMake package (restclient::restclient) and restclient.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RESTCLIENT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/restclient)

install(TARGETS restclient EXPORT restclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY restclient platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT restclientTargets NAMESPACE restclient:: DESTINATION ${RESTCLIENT_CMAKE_DIR})

configure_package_config_file(cmake/restclientConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/restclientConfig.cmake
  INSTALL_DESTINATION ${RESTCLIENT_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/restclientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/restclientConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/restclientConfigVersion.cmake
  DESTINATION ${RESTCLIENT_CMAKE_DIR})

# A relocatable prefix, so that the package works wherever the install tree is put.
file(RELATIVE_PATH RESTCLIENT_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/restclient.pc.in ${CMAKE_CURRENT_BINARY_DIR}/restclient.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/restclient.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
