# The API reference: Doxygen over the public headers, as the target `docs`.
#
# The target is not part of ALL. It fails when a public member of the
# headers has no comment, or when a comment does not parse: Doxygen runs with
# WARN_IF_UNDOCUMENTED and WARN_AS_ERROR=FAIL_ON_WARNINGS, so every warning
# is printed and the run ends with an error.
#
# Output: ${PROJECT_BINARY_DIR}/docs/api/index.html.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  message(STATUS "Doxygen not found: the target 'docs' (API reference) is not defined")
  return()
endif()

set(TZ_DOCS_DIR "${PROJECT_BINARY_DIR}/docs")
set(TZ_DOCS_MAINPAGE "\"${PROJECT_SOURCE_DIR}/README.md\"")
configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${TZ_DOCS_DIR}/Doxyfile @ONLY)

# Runs every time it is asked for; the old output goes first, so that pages
# of members that no longer exist do not linger.
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${TZ_DOCS_DIR}/api
  COMMAND Doxygen::doxygen ${TZ_DOCS_DIR}/Doxyfile
  WORKING_DIRECTORY ${TZ_DOCS_DIR}
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in
  COMMENT "Generating the API reference in ${TZ_DOCS_DIR}/api"
  VERBATIM)
