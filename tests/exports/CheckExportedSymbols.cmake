# Fails unless LIBRARY's dynamic symbol table defines exactly the functions that HEADERS
# ('|'-separated) declare, and nothing else. The declarations come from the C compiler
# (-aux-info lists every function declared, with the file that declares it).
# INCLUDE_DIRS ('|'-separated) are where the headers find what they include. EXPECTED
# ('|'-separated function names), when given, pins the declared set as well, so that a
# function added to a header fails too.
# Run with: cmake -DNM=<nm> -DCC=<gcc> -DLIBRARY=<so> -DHEADERS=<h|h> -DINCLUDE_DIRS=<d|d>
#                 -DWORK=<dir> -P <this>
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" headers "${HEADERS}")
string(REPLACE "|" ";" dirs "${INCLUDE_DIRS}")
list(TRANSFORM dirs PREPEND -I OUTPUT_VARIABLE include_dirs)
file(MAKE_DIRECTORY ${WORK})
set(unit "")
foreach(header ${headers})
  string(APPEND unit "#include \"${header}\"\n")
endforeach()
file(WRITE ${WORK}/all_headers.c "${unit}")
execute_process(COMMAND ${CC} ${include_dirs} -fsyntax-only -aux-info ${WORK}/declared.txt
                        ${WORK}/all_headers.c
  RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the headers do not compile as C:\n${errors}")
endif()

# Lines look like "/* <file>:<line>:NC */ extern int bundle_free (bundle *);". Keep the
# non-static declarations made in one of HEADERS.
file(STRINGS ${WORK}/declared.txt lines)
set(declared "")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^/\\* ([^:]+):[0-9]+:[^*]*\\*/ (.*)$")
    continue()
  endif()
  set(file ${CMAKE_MATCH_1})
  set(declaration ${CMAKE_MATCH_2})
  if(NOT file IN_LIST headers OR declaration MATCHES "^static ")
    continue()
  endif()
  if(declaration MATCHES "([A-Za-z_][A-Za-z_0-9]*) \\(")
    list(APPEND declared "T ${CMAKE_MATCH_1}")
  endif()
endforeach()
list(REMOVE_DUPLICATES declared)
list(SORT declared)
if(NOT declared)
  message(FATAL_ERROR "no function found in ${HEADERS}")
endif()
if(DEFINED EXPECTED)
  string(REPLACE "|" ";" expected "${EXPECTED}")
  list(TRANSFORM expected PREPEND "T ")
  list(SORT expected)
  if(NOT declared STREQUAL expected)
    message(FATAL_ERROR "declared: ${declared}\nexpected: ${expected}")
  endif()
endif()

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
# Each line is "<address> <kind> <name>"; every one must be a function (T).
string(REGEX MATCHALL " [A-Za-z] [^\n]+" exported "${listing}")
list(TRANSFORM exported STRIP)
list(SORT exported)

set(extra ${exported})
list(REMOVE_ITEM extra ${declared})
set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
if(extra OR missing)
  message(FATAL_ERROR "exported but not declared: ${extra}\n"
                      "declared but not exported: ${missing}")
endif()
list(LENGTH exported count)
message(STATUS "${LIBRARY}: ${count} functions, each declared in an installed header")
