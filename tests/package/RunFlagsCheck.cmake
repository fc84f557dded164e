# Script run by CTest: installs the built tree, builds one small host (flags_host/) against it
# twice, with find_package(TolvaCore) and with pkg-config, and checks that the package gives
# both the same compile definitions, include directories and other flags, and that both hosts
# print the same. The host's own choices (the language standard, the sanitizers of a sanitized
# build, the compile and dependency-file options) are set aside before comparing.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DGENERATOR=... [-DSANITIZE=...]
#         -P RunFlagsCheck.cmake

# Run with cmake -P, which starts with every policy unset: if(... IN_LIST ...) needs this.
cmake_policy(SET CMP0057 NEW)
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
set(host_source ${SOURCE_DIR}/tests/package/flags_host)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(GLOB_RECURSE pc_files ${prefix}/*/tolvacore.pc)
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
    message(FATAL_ERROR "expected one installed tolvacore.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir ${pc_files} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)

set(host_flags)
if(SANITIZE)
    set(host_flags -fsanitize=${SANITIZE})
endif()

# Splits a compile command into the package's part: definitions, include directories (the same
# directory counts once, whether -I or -isystem names it: CMake marks an imported package's
# headers as system headers, which only silences warnings in them), and every other option.
function(package_part words prefix_out)
    set(definitions)
    set(includes)
    set(others)
    set(skip_next FALSE)
    set(take_include FALSE)
    foreach(word IN LISTS words)
        if(skip_next)
            set(skip_next FALSE)
        elseif(take_include)
            set(take_include FALSE)
            get_filename_component(dir "${word}" REALPATH)
            list(APPEND includes "${dir}")
        elseif(word MATCHES "^-D(.+)$")
            list(APPEND definitions "${CMAKE_MATCH_1}")
        elseif(word MATCHES "^-(I|isystem)(.+)$")
            get_filename_component(dir "${CMAKE_MATCH_2}" REALPATH)
            list(APPEND includes "${dir}")
        elseif(word STREQUAL "-I" OR word STREQUAL "-isystem")
            set(take_include TRUE)
        elseif(word MATCHES "^-(o|c|MT|MF|MQ)$")
            set(skip_next TRUE)
        elseif(word MATCHES "^-(MD|MMD)$" OR word MATCHES "^-std=" OR word MATCHES "main\\.cpp$")
        elseif(word IN_LIST host_flags)
        else()
            list(APPEND others "${word}")
        endif()
    endforeach()
    foreach(part definitions includes others)
        list(REMOVE_DUPLICATES ${part})
        list(SORT ${part})
        set(${prefix_out}_${part} "${${part}}" PARENT_SCOPE)
    endforeach()
endfunction()

# The CMake host. No build type: CMake then adds no options of its own (-O2, -DNDEBUG).
set(cmake_build ${WORK_DIR}/cmake-host)
run(${CMAKE_COMMAND} -S ${host_source} -B ${cmake_build} -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE= -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
    "-DCMAKE_CXX_FLAGS=${host_flags}" "-DCMAKE_EXE_LINKER_FLAGS=${host_flags}")
run(${CMAKE_COMMAND} --build ${cmake_build})
file(READ ${cmake_build}/compile_commands.json compile_commands)
string(JSON command_count LENGTH "${compile_commands}")
if(NOT command_count EQUAL 1)
    message(FATAL_ERROR "expected one compile command:\n${compile_commands}")
endif()
string(JSON cmake_command GET "${compile_commands}" 0 command)
separate_arguments(cmake_words UNIX_COMMAND "${cmake_command}")
list(POP_FRONT cmake_words compiler)
package_part("${cmake_words}" cmake)
run(${cmake_build}/flags_host)
set(cmake_output "${last_output}")

# The pkg-config host, same source, same compiler.
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags tolvacore)
string(STRIP "${last_output}" pc_cflags)
run(pkg-config --libs tolvacore)
string(STRIP "${last_output}" pc_libs)
separate_arguments(pc_cflag_words UNIX_COMMAND "${pc_cflags}")
separate_arguments(pc_lib_words UNIX_COMMAND "${pc_libs}")
package_part("${pc_cflag_words}" pc)
run(${compiler} -std=c++17 ${host_flags} ${pc_cflag_words} ${host_source}/main.cpp
    -o ${WORK_DIR}/pkg-config-host ${pc_lib_words} -Wl,-rpath,${lib_dir})
run(${WORK_DIR}/pkg-config-host)
set(pc_output "${last_output}")

set(differences "")
foreach(part definitions includes others)
    if(NOT "${cmake_${part}}" STREQUAL "${pc_${part}}")
        string(APPEND differences
            "${part}:\n  CMake package: ${cmake_${part}}\n  pkg-config:    ${pc_${part}}\n")
    endif()
endforeach()
if(NOT cmake_output STREQUAL pc_output)
    string(APPEND differences
        "output:\n  CMake host:\n${cmake_output}\n  pkg-config host:\n${pc_output}\n")
endif()
if(differences)
    message(FATAL_ERROR "a host built with the CMake package and one built with pkg-config "
        "differ\n  CMake compile command: ${cmake_command}\n  pkg-config --cflags: "
        "${pc_cflags}\n${differences}")
endif()
if(NOT cmake_output MATCHES "flags host ok")
    message(FATAL_ERROR "the host printed: ${cmake_output}")
endif()
message(STATUS "definitions: ${cmake_definitions}")
message(STATUS "include directories: ${cmake_includes}")
message(STATUS "other options: ${cmake_others}")
message(STATUS "the CMake and pkg-config hosts are compiled alike and print the same")
