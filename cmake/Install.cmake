# Installs the library, the platform layer, their headers, pkg-config files and a CMake
# package (find_package(TalvoProxy) gives TalvoProxy::talvo-proxy and
# TalvoProxy::velna-platform).
include(CMakePackageConfigHelpers)

install(TARGETS velna-platform talvo-proxy EXPORT TalvoProxyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velna FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/include/talvo_proxy.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvo)

# The .pc files locate the prefix from their own directory, so an install under any
# --prefix works.
file(RELATIVE_PATH PC_PREFIX_FROM_PCDIR /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
foreach(pc velna-platform talvo-proxy)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

set(TALVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoProxy)
install(EXPORT TalvoProxyTargets NAMESPACE TalvoProxy:: DESTINATION ${TALVO_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TalvoProxyConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TalvoProxyConfig.cmake INSTALL_DESTINATION ${TALVO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TalvoProxyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TalvoProxyConfig.cmake
  ${PROJECT_BINARY_DIR}/TalvoProxyConfigVersion.cmake DESTINATION ${TALVO_CMAKE_DIR})
