# Script run by CTest: install, check the installed files (the documentation included), build
# the consumer against the installed tree, run it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The documentation comes with the package: the README, docs/, the emulator's README, the
# examples' sources with their CMakeLists.txt, and the API reference when Doxygen built it.
set(doc share/doc/tolvacore)
file(GLOB examples RELATIVE ${SOURCE_DIR}/examples ${SOURCE_DIR}/examples/*.cpp)
list(TRANSFORM examples PREPEND ${doc}/examples/)
set(reference)
if(EXISTS ${BUILD_DIR}/docs/package/html/index.html)
    set(reference ${doc}/html/index.html)
endif()
foreach(expected
        include/ZuCore/Logger.h
        include/TolvaCore/QxPlatformApi.h
        include/TolvaCore/CTolvaPlatform.h
        lib/cmake/TolvaCore/TolvaCoreConfig.cmake
        lib/cmake/TolvaCore/TolvaCoreConfigVersion.cmake
        ${doc}/README.md
        ${doc}/docs/threads.md
        ${doc}/emulator/README.md
        ${doc}/examples/CMakeLists.txt
        ${examples}
        ${reference})
    if(NOT EXISTS ${prefix}/${expected})
        file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
        message(FATAL_ERROR "not installed: ${expected}\ninstalled: ${installed}")
    endif()
endforeach()

set(extra_args)
if(SANITIZE)
    list(APPEND extra_args "-DCMAKE_CXX_FLAGS=-fsanitize=${SANITIZE}"
                           "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/consumer-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} ${extra_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-build)
run(${WORK_DIR}/consumer-build/tolva_consumer)
if(NOT last_output MATCHES "consumer ok")
    message(FATAL_ERROR "consumer printed: ${last_output}")
endif()

# The shared objects carry a SONAME and the consumer loads them from the installed tree.
run(readelf -d ${WORK_DIR}/consumer-build/tolva_consumer)
execute_process(COMMAND ldd ${WORK_DIR}/consumer-build/tolva_consumer OUTPUT_VARIABLE ldd_out)
if(NOT ldd_out MATCHES "${prefix}/lib/libTolvaCore\\.so\\.0")
    message(FATAL_ERROR "consumer does not load the installed libTolvaCore.so.0:\n${ldd_out}")
endif()
message(STATUS "package test passed")
