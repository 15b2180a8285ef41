# Fails unless LIBRARY's dynamic symbol table defines exactly the functions that HEADER
# declares. Run with: cmake -DNM=<nm> -DLIBRARY=<path> -DHEADER=<path> -P <this file>
file(READ ${HEADER} header)
string(REGEX MATCHALL "[a-z_]+ \\*?(talvo_companion_[a-z_]+)\\(" declared "${header}")
list(TRANSFORM declared REPLACE ".*(talvo_companion_[a-z_]+)\\($" "T \\1")
list(SORT declared)
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL " [A-Za-z] [^\n]+" defined "${listing}")
list(TRANSFORM defined STRIP)
list(SORT defined)
if(NOT defined STREQUAL declared OR declared STREQUAL "")
  message(FATAL_ERROR "exported: ${defined}\ndeclared: ${declared}")
endif()
