# Run by CPack after the packages are built (CPACK_POST_BUILD_SCRIPTS). CPack gives a
# package of shared libraries postinst and postrm scripts that run ldconfig; a package with
# a postrm stays known to dpkg ("rc") after apt-get remove until it is purged. The library
# package gets what Debian's own library packages have instead: no maintainer scripts, and
# a trigger that has ldconfig run once per dpkg run.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}_")
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
