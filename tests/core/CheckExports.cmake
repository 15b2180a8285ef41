# Fails unless LIBRARY's dynamic symbol table defines exactly the six functions of the
# public header. Run with: cmake -DNM=<nm> -DLIBRARY=<path> -P CheckExports.cmake
set(expected
  talvo_proxy_app_action_execution
  talvo_proxy_app_state_request
  talvo_proxy_deinitialize
  talvo_proxy_get_focused_app_id
  talvo_proxy_initialize
  talvo_proxy_is_action_registered)

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()

string(REPLACE "\n" ";" lines "${listing}")
set(defined)
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]* +([A-Za-z]) +(.+)$")
    set(kind "${CMAKE_MATCH_1}")
    set(name "${CMAKE_MATCH_2}")
    list(APPEND defined "${name}")
    if(NOT kind STREQUAL "T")
      message(FATAL_ERROR "${name} is exported as '${kind}', not as a function")
    endif()
  endif()
endforeach()
list(SORT defined)

if(NOT defined STREQUAL expected)
  message(FATAL_ERROR "exported: ${defined}\nexpected: ${expected}")
endif()
