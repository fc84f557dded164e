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

# The reference that is installed with the package (share/doc/tolvacore/html): built with
# everything else into <build>/docs/package/html, and again when a public header changes. It
# does not fail on a Doxygen warning, so that a newer Doxygen's new warnings never break a
# user's or a packager's build; the docs target and the docs.reference test keep them at zero.
file(GLOB TOLVA_DOCUMENTED_HEADERS CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/api/Tolva/Tolva/TolvaCore/*.h
    ${PROJECT_SOURCE_DIR}/facade/*.h
    ${PROJECT_SOURCE_DIR}/api/Tolva/Zu/include/ZuCore/*.h)
file(WRITE ${DOCS_OUTPUT}/Doxyfile.package
    "@INCLUDE = ${DOCS_OUTPUT}/Doxyfile\n"
    "OUTPUT_DIRECTORY = ${DOCS_OUTPUT}/package\n"
    "WARN_AS_ERROR = NO\n"
    "WARN_LOGFILE = ${DOCS_OUTPUT}/package/warnings.txt\n")
add_custom_command(OUTPUT ${DOCS_OUTPUT}/package/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${DOCS_OUTPUT}/package
    COMMAND Doxygen::doxygen ${DOCS_OUTPUT}/Doxyfile.package
    DEPENDS ${TOLVA_DOCUMENTED_HEADERS} ${PROJECT_SOURCE_DIR}/docs/mainpage.md
        ${DOCS_OUTPUT}/Doxyfile ${DOCS_OUTPUT}/Doxyfile.package
    WORKING_DIRECTORY ${DOCS_OUTPUT}
    COMMENT "API reference for the package in ${DOCS_OUTPUT}/package/html"
    VERBATIM)
add_custom_target(package_reference ALL DEPENDS ${DOCS_OUTPUT}/package/html/index.html)
install(DIRECTORY ${DOCS_OUTPUT}/package/html DESTINATION ${TOLVA_DOC_DIR})
