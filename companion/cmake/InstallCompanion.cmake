# Installs the SDK: the library (component runtime), its header, pkg-config file and
# CMake package (component dev). find_package(TalvoCompanion) gives
# TalvoCompanion::talvo-companion, which brings the platform layer's headers with it.
include(CMakePackageConfigHelpers)

install(TARGETS talvo-companion EXPORT TalvoCompanionTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/include/talvo_companion.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvo COMPONENT dev)

# The .pc file locates the prefix from its own directory, so any --prefix works.
file(RELATIVE_PATH TALVO_COMPANION_PC_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(${CMAKE_CURRENT_LIST_DIR}/talvo-companion.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/talvo-companion.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talvo-companion.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(TALVO_COMPANION_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoCompanion)
install(EXPORT TalvoCompanionTargets NAMESPACE TalvoCompanion::
  DESTINATION ${TALVO_COMPANION_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TalvoCompanionConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TalvoCompanionConfig.cmake
  INSTALL_DESTINATION ${TALVO_COMPANION_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TalvoCompanionConfigVersion.cmake
  VERSION ${TALVO_COMPANION_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TalvoCompanionConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/TalvoCompanionConfigVersion.cmake
  DESTINATION ${TALVO_COMPANION_CMAKE_DIR} COMPONENT dev)
