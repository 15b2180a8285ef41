# add_child_subdirectories([EXCEPT name...]): adds every direct subdirectory of the
# current source directory that has a CMakeLists.txt, so a new app, tool, test suite or
# benchmark joins the build by existing.
function(add_child_subdirectories)
  cmake_parse_arguments(ARG "" "" "EXCEPT" ${ARGN})
  file(GLOB children LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
       ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(child ${children})
    if(NOT child IN_LIST ARG_EXCEPT AND IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${child}
       AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()
