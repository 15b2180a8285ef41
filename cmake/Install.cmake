# The CMake package of every library installed through talvo_install_library
# (cmake/TalvoInstall.cmake): find_package(TalvoProxy) gives TalvoProxy::talvo-proxy and
# TalvoProxy::velna-platform. Included after every subdirectory, so the export set is
# complete.
include(CMakePackageConfigHelpers)

set(TALVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoProxy)
install(EXPORT TalvoProxyTargets NAMESPACE TalvoProxy:: DESTINATION ${TALVO_CMAKE_DIR}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TalvoProxyConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TalvoProxyConfig.cmake INSTALL_DESTINATION ${TALVO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TalvoProxyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TalvoProxyConfig.cmake
  ${PROJECT_BINARY_DIR}/TalvoProxyConfigVersion.cmake DESTINATION ${TALVO_CMAKE_DIR}
  COMPONENT dev)
