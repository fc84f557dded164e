# The API reference: `cmake --build <build> --target docs` (or `make docs`) runs Doxygen over
# the public headers into <build>/docs/html. Every Doxygen warning (an undocumented public
# member, a malformed comment) fails it, and the plain build's test suite runs it as a test.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    message(STATUS "Doxygen not found: no docs target")
    return()
endif()

set(DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
file(MAKE_DIRECTORY ${DOCS_OUTPUT})
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${DOCS_OUTPUT}/Doxyfile @ONLY)

add_custom_target(docs
    COMMAND Doxygen::doxygen ${DOCS_OUTPUT}/Doxyfile
    WORKING_DIRECTORY ${DOCS_OUTPUT}
    COMMENT "API reference in ${DOCS_OUTPUT}/html"
    VERBATIM)

if(TOLVA_BUILD_TESTS AND NOT TOLVA_SANITIZE)
    add_test(NAME docs.reference
        COMMAND Doxygen::doxygen ${DOCS_OUTPUT}/Doxyfile
        WORKING_DIRECTORY ${DOCS_OUTPUT})
    set_tests_properties(docs.reference PROPERTIES LABELS docs)
endif()
