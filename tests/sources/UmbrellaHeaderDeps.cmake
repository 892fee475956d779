# The public headers keep Boost.Thread and Boost.Filesystem to the library:
# a one-line program including the umbrella header is preprocessed with -H
# (which lists every header opened) and no header from either may appear,
# nor may the program fail to compile. Deterministic: no timing.
# Inputs: CXX, INCLUDE_DIR, WORK_DIR.
file(MAKE_DIRECTORY ${WORK_DIR})
set(program ${WORK_DIR}/umbrella.cpp)
file(WRITE ${program} "#include <tesselzostream/tesselzostream.h>\nint main() { return 0; }\n")
execute_process(COMMAND ${CXX} -std=c++17 -I${INCLUDE_DIR} -H -fsyntax-only ${program}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE tree)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the umbrella header does not compile (${rc}):\n${out}\n${tree}")
endif()
string(REGEX MATCHALL "[^\n]*boost/(thread|filesystem)[/.][^\n]*" offending "${tree}")
if(offending)
  string(REPLACE ";" "\n" offending "${offending}")
  message(FATAL_ERROR "the umbrella header pulls in Boost.Thread or Boost.Filesystem:\n${offending}")
endif()
string(REGEX MATCHALL "\n\\.+ " opened "\n${tree}")
list(LENGTH opened count)
message(STATUS "umbrella header: ${count} headers opened, none of Boost.Thread or Boost.Filesystem")
