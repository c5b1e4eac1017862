# The shared library must export the eight entry points and nothing else.
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(found "")
foreach(line ${lines})
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  list(APPEND found ${name})
endforeach()
list(SORT found)
set(expected zelkBatchQuery zelkConfig zelkDestroy zelkInit zelkQuery zelkRenderOccluders
  zelkStartNewFrame zelkSubmitOccluder)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported symbols differ:\n  found:    ${found}\n  expected: ${expected}")
endif()
message(STATUS "exactly the eight entry points are exported")
