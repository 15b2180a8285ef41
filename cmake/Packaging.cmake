# Debian packages, one per install component (cpack -G DEB in the build directory, or
# scripts/package.sh): the shared libraries and the system-bus policy in a package named
# after the soname, the development files, the tools, the samples with the demo.
# Dependencies on other Debian packages come from dpkg-shlibdeps; dependencies between
# these packages from the component graph. Included last: every install rule is known.
set(TALVO_SONAME_PACKAGE libtalvo-proxy${PROJECT_VERSION_MAJOR})

set(CPACK_PACKAGE_NAME talvo-proxy)
set(CPACK_PACKAGE_VENDOR "Talvo")
set(CPACK_PACKAGE_CONTACT "Talvo developers <talvo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Reach companion apps from an assistant process")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime dev tools samples)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The project's own libraries, which dpkg-shlibdeps must find to read the programs that
# link them (the dependency on their package comes from the component graph).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/companion)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${TALVO_SONAME_PACKAGE})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebLibraryTriggers.cmake)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Talvo proxy library and Velna platform layer (shared libraries, system-bus policy)")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtalvo-proxy-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
# What the .pc files name in Requires.private must be there for pkg-config --cflags.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libglib2.0-dev, libjson-glib-dev, libefl-all-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "Talvo proxy development files (headers, pkg-config files, CMake package)")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME talvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "Talvo proxy tools: talvo-cli and the window-manager simulator talvo-wm-sim")

set(CPACK_DEBIAN_SAMPLES_PACKAGE_NAME talvo-samples)
set(CPACK_DEBIAN_SAMPLES_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_SAMPLES_DEPENDS runtime tools)
# The demo runs these programs; it does not link them.
set(CPACK_DEBIAN_SAMPLES_PACKAGE_DEPENDS "dbus-daemon")
set(CPACK_DEBIAN_SAMPLES_DESCRIPTION
  "Talvo proxy sample companion apps and the demo (talvo-demo)")

include(CPack)
