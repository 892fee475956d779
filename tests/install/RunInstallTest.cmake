# Installs the library into a scratch prefix, then builds and runs an
# application against it with find_package and with pkg-config, and checks
# that the shared object exports the public classes only.
# Inputs: BUILD_DIR, SOURCE_DIR, WORK_DIR, CXX.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer ${WORK_DIR}/a.cf)

file(GLOB pcdir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
run(pkg-config --cflags --libs tesselzostream)
string(STRIP "${LAST_OUTPUT}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
string(REGEX REPLACE "^-L" "" libdir "${flags}")
run(${CXX} -std=c++17 ${SOURCE_DIR}/tests/install/consumer/consumer.cpp ${flags}
    -o ${WORK_DIR}/pc-consumer)
foreach(f ${flags})
  if(f MATCHES "^-L(.*)")
    set(ENV{LD_LIBRARY_PATH} "${CMAKE_MATCH_1}")
  endif()
endforeach()
run(${WORK_DIR}/pc-consumer ${WORK_DIR}/b.cf)

# The tool, when built, runs from its installed place against the
# installed library, and its manual page is there.
file(GLOB tool ${prefix}/bin/tzcf)
if(tool)
  set(ENV{LD_LIBRARY_PATH} "")
  run(${tool} ls ${WORK_DIR}/a.cf)
  if(NOT EXISTS ${prefix}/share/man/man1/tzcf.1)
    message(FATAL_ERROR "the manual page of tzcf is not installed")
  endif()
endif()

file(GLOB_RECURSE so ${prefix}/libtesselzostream.so)
run(nm -DC --defined-only ${so})
if(LAST_OUTPUT MATCHES "BlockFileCore|BlockMap|FileServer|ZoIOStream|tz::")
  message(FATAL_ERROR "engine symbols are exported:\n${LAST_OUTPUT}")
endif()
foreach(symbol "CompoundFile::Open" "InputStreamDirectory::GetInput"
    "OldInputStreamDirectory::IsStreamDirectory" "ZStreamBase::MyStreamableData"
    "ZStreamLight::CheckMagicStringAndVersionNumber" "ZoStreamError::Clone"
    "FactoryRepositoryBase::smNameToProductFactoryMap")
  string(FIND "${LAST_OUTPUT}" "${symbol}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${symbol} is not exported")
  endif()
endforeach()
