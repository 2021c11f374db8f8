# `docs`: the API reference from the public headers, with Debian's doxygen.
# Not part of `all`: only CI and whoever wants the reference pay for it.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(PALOMIR_DOCS_OUTPUT "${PROJECT_BINARY_DIR}/docs")
  configure_file("${PROJECT_SOURCE_DIR}/docs/Doxyfile.in" "${PROJECT_BINARY_DIR}/Doxyfile" @ONLY)
  add_custom_target(docs
    COMMAND "${DOXYGEN_EXECUTABLE}" "${PROJECT_BINARY_DIR}/Doxyfile"
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    COMMENT "API reference in ${PALOMIR_DOCS_OUTPUT}/html"
    VERBATIM)
else()
  message(STATUS "palomir: doxygen not found, the docs target is not defined")
endif()
