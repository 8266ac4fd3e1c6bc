# The API reference: the public headers' own comments and the guide in
# docs/, built by `cmake --build <dir> --target docs`. Every warning fails the
# build, undocumented members and parameters included, so the reference
# cannot fall behind the headers.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
  return()
endif()
set(DOXYGEN_PROJECT_NAME vexo)
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_PROJECT_BRIEF "Unix back end of a portable I/O library")
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/reference)
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_IF_DOC_ERROR YES)
set(DOXYGEN_WARN_IF_INCOMPLETE_DOC YES)
set(DOXYGEN_WARN_NO_PARAMDOC YES)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_OPTIMIZE_OUTPUT_FOR_C YES)
set(DOXYGEN_TYPEDEF_HIDES_STRUCT YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED "VEXO_API=" "VEXO_BEGIN_DECLS=" "VEXO_END_DECLS=")
set(DOXYGEN_FULL_PATH_NAMES NO)
set(DOXYGEN_EXAMPLE_PATH ${PROJECT_SOURCE_DIR}/examples)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/docs/guide.md)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_SORT_MEMBER_DOCS NO)
doxygen_add_docs(docs
  ${PROJECT_SOURCE_DIR}/include/vexo ${PROJECT_BINARY_DIR}/include/vexo ${PROJECT_SOURCE_DIR}/docs
  COMMENT "Building the API reference")
