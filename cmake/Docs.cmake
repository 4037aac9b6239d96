# `docs`: HTML reference of the installed headers (KELM_INSTALLED_HEADERS),
# made by Doxygen from the headers' comments into <build>/docs/html. Members
# without a comment are listed without a warning; broken references and
# markup are warnings, and a warning fails the target.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND OR NOT EXISTS ${KELM_PYTHON_INTERPRETER})
  message(STATUS "docs target: skipped (needs doxygen and ${KELM_PYTHON_INTERPRETER}; scripts/install-deps installs them)")
  return()
endif()

set(DOXYGEN_PROJECT_NAME arm_control_sdk)
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_PROJECT_BRIEF "Client library for robot arm controllers over WebSocket")
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
set(DOXYGEN_STRIP_FROM_PATH ${CMAKE_CURRENT_SOURCE_DIR})
# The headers document themselves in plain // comments; the filter hands
# them to Doxygen as documentation comments, line for line.
set(DOXYGEN_INPUT_FILTER "${KELM_PYTHON_INTERPRETER} ${PROJECT_SOURCE_DIR}/docs/doxygen_comment_filter.py")
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_BUILTIN_STL_SUPPORT YES)
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_WARN_IF_UNDOCUMENTED NO)
set(DOXYGEN_WARN_NO_PARAMDOC NO)
set(DOXYGEN_WARN_IF_DOC_ERROR YES)
if(DOXYGEN_VERSION VERSION_GREATER_EQUAL 1.9.4)
  set(DOXYGEN_WARN_IF_INCOMPLETE_DOC NO)
endif()
if(DOXYGEN_VERSION VERSION_GREATER_EQUAL 1.9.0)
  set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
else()
  set(DOXYGEN_WARN_AS_ERROR YES)
endif()
doxygen_add_docs(docs ${KELM_INSTALLED_HEADERS}
  COMMENT "Doxygen: arm_control_sdk reference into ${PROJECT_BINARY_DIR}/docs/html")
