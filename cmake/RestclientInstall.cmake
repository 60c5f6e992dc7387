# Installs the public headers under include/restclient/ and include/tavix/, both shared
# libraries, a CMake package (restclient::restclient, restclient::platform) and restclient.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RESTCLIENT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/restclient)

install(TARGETS tavixplatform restclient EXPORT restclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(CMAKE_OBJCOPY)
  install(FILES $<TARGET_FILE:tavixplatform>.debug $<TARGET_FILE:restclient>.debug
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/.debug COMPONENT debug EXCLUDE_FROM_ALL)
endif()
# Internals live in detail/ folders and stay out of the install; the installed-package check
# compiles every installed header on its own, so none can reach one.
install(DIRECTORY restclient/restclient platform/tavix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "detail" EXCLUDE)
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
