# Installs the CMake package (find_package(TolvaCore CONFIG REQUIRED), then link
# Tolva::TolvaCore or Tolva::ZuCore alone) and a pkg-config file (tolvacore.pc), and sets up
# CPack to make a Debian package of the whole installed tree (`cpack -G DEB` in the build
# folder), documentation included.
include(CMakePackageConfigHelpers)

set(TOLVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TolvaCore)

install(EXPORT TolvaCoreTargets
    NAMESPACE Tolva::
    FILE TolvaCoreTargets.cmake
    DESTINATION ${TOLVA_CMAKE_DIR})

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/TolvaCoreConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TolvaCoreConfig.cmake
    INSTALL_DESTINATION ${TOLVA_CMAKE_DIR})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/TolvaCoreConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)

install(FILES
    ${PROJECT_BINARY_DIR}/TolvaCoreConfig.cmake
    ${PROJECT_BINARY_DIR}/TolvaCoreConfigVersion.cmake
    DESTINATION ${TOLVA_CMAKE_DIR})

# The pkg-config file gives a host the compile definitions that Tolva::TolvaCore gives a CMake
# host: those of ZuCore and TolvaCore and of what they link publicly (cpprestsdk's, say), read
# from the target when the build is generated, so that the two never drift apart. A host built
# either way then compiles the headers alike (tests/package/RunFlagsCheck.cmake compares them).
file(RELATIVE_PATH TOLVA_PC_UP /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
set(_tolva_pc_definitions
    "$<REMOVE_DUPLICATES:$<TARGET_PROPERTY:TolvaCore,INTERFACE_COMPILE_DEFINITIONS>>")
set(TOLVA_PC_CFLAGS
    "$<$<BOOL:${_tolva_pc_definitions}>: -D$<JOIN:${_tolva_pc_definitions}, -D>>")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tolvacore.pc.in
    ${PROJECT_BINARY_DIR}/tolvacore.pc.configured @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/tolvacore.pc
    INPUT ${PROJECT_BINARY_DIR}/tolvacore.pc.configured)
install(FILES ${PROJECT_BINARY_DIR}/tolvacore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The documentation goes to share/doc/tolvacore (/usr/share/doc/tolvacore in the Debian
# package), laid out as in the source tree so that the README's links hold: the README, docs/,
# the emulator's README, and the examples' sources with the CMakeLists.txt that builds them
# against the installed package. TolvaDocs.cmake adds the HTML API reference (html/) when
# Doxygen is there.
set(TOLVA_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/tolvacore)
file(GLOB TOLVA_DOC_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${TOLVA_DOC_DIR})
install(FILES ${TOLVA_DOC_PAGES} DESTINATION ${TOLVA_DOC_DIR}/docs)
install(FILES ${PROJECT_SOURCE_DIR}/emulator/README.md DESTINATION ${TOLVA_DOC_DIR}/emulator)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${TOLVA_DOC_DIR}/examples
    FILES_MATCHING PATTERN "*.cpp" PATTERN "CMakeLists.txt")

# One Debian package: libraries, headers, CMake and pkg-config files, tolva and qxp-emulator,
# and the documentation, installed under /usr. The run-time dependencies come from dpkg-shlibdeps; the development
# packages are there because the public headers include theirs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tolvacore)
set(CPACK_PACKAGE_VENDOR "TolvaCore")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
    "TolvaCore talks to the QX Platform over REST: OAuth2 client-credentials tokens, \
notifications, service registration with heartbeats, mailboxes with long polling, request \
and reply, and verification of platform-issued JWTs. With the tolva tool and the \
qxp-emulator platform emulator.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "TolvaCore developers <tolvacore-dev@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libcpprest-dev, libboost-dev, libboost-system-dev, libboost-thread-dev, libssl-dev")
include(CPack)
