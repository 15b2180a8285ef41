# Install helpers. For the project's installed shared libraries, in one place: a versioned
# soname, installation in the right components (the library in
# "runtime", its headers, .pc file and namelink in "dev"), a relocatable pkg-config file,
# a place in the CMake package (find_package(TalvoProxy) gives TalvoProxy::<target>), and
# a test that it exports exactly what its installed headers declare.
#
# Install components: runtime, dev, tools, samples. Anything else installed by the
# project names one of them with install(... COMPONENT <name>); cmake/Packaging.cmake
# turns each into a Debian package.

# The .pc files locate the prefix from their own directory, so that a tree installed under
# any --prefix, or moved, still resolves.
file(RELATIVE_PATH PC_PREFIX_FROM_PCDIR /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)

# talvo_install_library(<target> HEADERS <file>... INCLUDE_SUBDIR <dir>
#                       DESCRIPTION <text> [REQUIRES <pc>...] [REQUIRES_PRIVATE <pc>...])
#
# <target> is a SHARED library. Its headers go to <includedir>/<dir>, and <target>.pc
# (Libs -l<output name>, Cflags -I<includedir>/<dir>) lists in REQUIRES only the modules
# that the installed headers include and in REQUIRES_PRIVATE those that the library links
# privately. Link such dependencies PRIVATE on the target, so the CMake package needs
# none of them: a consumer's find_package(TalvoProxy) then adds nothing to its scope.
function(talvo_install_library target)
  cmake_parse_arguments(ARG "" "INCLUDE_SUBDIR;DESCRIPTION" "HEADERS;REQUIRES;REQUIRES_PRIVATE"
                        ${ARGN})
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${target} INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/${ARG_INCLUDE_SUBDIR}>)
  if(TALVO_INSTALL_RPATH)
    # A library finds its sibling libraries wherever the tree was installed.
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()

  install(TARGETS ${target} EXPORT TalvoProxyTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
  install(FILES ${ARG_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ARG_INCLUDE_SUBDIR} COMPONENT dev)

  set(PC_NAME ${target})
  set(PC_DESCRIPTION ${ARG_DESCRIPTION})
  set(PC_INCLUDE_SUBDIR ${ARG_INCLUDE_SUBDIR})
  string(JOIN " " PC_REQUIRES ${ARG_REQUIRES})
  string(JOIN " " PC_REQUIRES_PRIVATE ${ARG_REQUIRES_PRIVATE})
  get_target_property(PC_LIBRARY ${target} OUTPUT_NAME)
  if(NOT PC_LIBRARY)
    set(PC_LIBRARY ${target})
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in
                 ${PROJECT_BINARY_DIR}/pkgconfig/${target}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${target}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

# talvo_add_exports_check(<target> HEADERS <file>... [FUNCTIONS <name>...])
#
# Registers a test, Exports.<target>MatchesItsHeaders, that fails unless the dynamic
# symbol table of <target> defines exactly the functions that HEADERS declare (found by
# the C compiler, so macros and comments cannot fool it). Build the target with hidden
# visibility and open each installed header with "#pragma GCC visibility push(default)"
# (close it with pop), and a new public function is exported by being declared. FUNCTIONS
# pins the declared set too, for a library whose interface is fixed.
function(talvo_add_exports_check target)
  cmake_parse_arguments(ARG "" "" "HEADERS;FUNCTIONS" ${ARGN})
  set_property(GLOBAL APPEND PROPERTY TALVO_EXPORT_CHECKED_TARGETS ${target})
  set_property(TARGET ${target} PROPERTY TALVO_EXPORTED_HEADERS ${ARG_HEADERS})
  set_property(TARGET ${target} PROPERTY TALVO_EXPORTED_FUNCTIONS ${ARG_FUNCTIONS})
endfunction()

# Installed programs look for the libraries in <prefix>/<libdir>, reached from their own
# directory; a program installed elsewhere than <bindir> sets its own INSTALL_RPATH with
# talvo_rpath_from().
function(talvo_rpath_from destination out_var)
  file(RELATIVE_PATH rel /root/${destination} /root/${CMAKE_INSTALL_LIBDIR})
  set(${out_var} "$ORIGIN/${rel}" PARENT_SCOPE)
endfunction()
if(TALVO_INSTALL_RPATH)
  talvo_rpath_from(${CMAKE_INSTALL_BINDIR} CMAKE_INSTALL_RPATH)
endif()

# Where sample apps' manifests are installed (see TALVO_SAMPLES_AS_LIVE_APPS).
if(TALVO_SAMPLES_AS_LIVE_APPS)
  set(TALVO_SAMPLE_MANIFEST_DIR ${CMAKE_INSTALL_DATADIR}/velna/apps)
else()
  set(TALVO_SAMPLE_MANIFEST_DIR ${CMAKE_INSTALL_DATADIR}/talvo/samples/apps)
endif()

# talvo_install_app(<target> APP_ID <id> TEMPLATE <file.app.in> COMPONENT <component>)
#
# Installs the program <target> to <libexecdir>/talvo-samples and its manifest
# <id>.app to TALVO_SAMPLE_MANIFEST_DIR. The manifest's Exec must name the program under
# the prefix that the tree is installed to, which is known only when installing
# (cmake --install --prefix, cpack), so the manifest is written then: @SAMPLE_EXEC@ in
# TEMPLATE becomes <install prefix>/<libexecdir>/talvo-samples/<program>; DESTDIR is
# staging only and is not part of it.
function(talvo_install_app target)
  cmake_parse_arguments(ARG "" "APP_ID;TEMPLATE;COMPONENT" "" ${ARGN})
  set(program_dir ${CMAKE_INSTALL_LIBEXECDIR}/talvo-samples)
  if(TALVO_INSTALL_RPATH)
    talvo_rpath_from(${program_dir} rpath)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${rpath}")
  endif()
  install(TARGETS ${target} RUNTIME DESTINATION ${program_dir} COMPONENT ${ARG_COMPONENT})

  get_filename_component(template ${ARG_TEMPLATE} ABSOLUTE)
  set(staging ${CMAKE_CURRENT_BINARY_DIR}/installed)
  install(CODE "
    set(SAMPLE_EXEC \"\${CMAKE_INSTALL_PREFIX}/${program_dir}/$<TARGET_FILE_NAME:${target}>\")
    # One staging file per destination: installs to two prefixes may run at once.
    string(MD5 key \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${template}\" \"${staging}/\${key}/${ARG_APP_ID}.app\" @ONLY)
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${TALVO_SAMPLE_MANIFEST_DIR}\"
         TYPE FILE FILES \"${staging}/\${key}/${ARG_APP_ID}.app\")
    " COMPONENT ${ARG_COMPONENT})
endfunction()
