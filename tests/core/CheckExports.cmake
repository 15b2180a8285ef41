# Fails unless LIBRARY's dynamic symbol table defines exactly the six functions of the
# public header, or, given -DHEADER=<path>, exactly the talvo_ functions that HEADER
# declares. Run with: cmake -DNM=<nm> -DLIBRARY=<path> [-DHEADER=<path>] -P CheckExports.cmake
set(expected
  "T talvo_proxy_app_action_execution" "T talvo_proxy_app_state_request"
  "T talvo_proxy_deinitialize" "T talvo_proxy_get_focused_app_id"
  "T talvo_proxy_initialize" "T talvo_proxy_is_action_registered")
if(HEADER)
  file(READ ${HEADER} header)
  string(REGEX MATCHALL "[a-z_]+ \\*?talvo_[a-z_]+\\(" expected "${header}")
  list(TRANSFORM expected REPLACE ".*(talvo_[a-z_]+)\\($" "T \\1")
  list(SORT expected)
endif()
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
# Each line is "<address> <kind> <name>"; the kind must say function (T).
string(REGEX MATCHALL " [A-Za-z] [^\n]+" defined "${listing}")
list(TRANSFORM defined STRIP)
list(SORT defined)
if(NOT defined STREQUAL expected)
  message(FATAL_ERROR "exported: ${defined}\nexpected: ${expected}")
endif()
