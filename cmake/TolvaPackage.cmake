# Installs the CMake package: find_package(TolvaCore CONFIG REQUIRED) then link
# Tolva::TolvaCore (or Tolva::ZuCore alone).
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
