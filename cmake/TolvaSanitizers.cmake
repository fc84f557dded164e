# TOLVA_SANITIZE=address,undefined or TOLVA_SANITIZE=thread instruments everything we
# build (libraries, tools, tests). Third-party binaries from Debian stay uninstrumented;
# see tests/sanitizers/ for the suppressions that this requires.
if(TOLVA_SANITIZE)
    set(_tolva_san_flags -fsanitize=${TOLVA_SANITIZE} -fno-omit-frame-pointer -g)
    if(TOLVA_SANITIZE MATCHES "undefined")
        list(APPEND _tolva_san_flags -fno-sanitize-recover=all)
    endif()
    if(TOLVA_SANITIZE MATCHES "thread")
        # GCC warns that ThreadSanitizer does not model std::atomic_thread_fence, which
        # Boost.Asio's headers use; the warning is about third-party code, not ours.
        list(APPEND _tolva_san_flags -Wno-tsan)
    endif()
    add_compile_options(${_tolva_san_flags})
    add_link_options(-fsanitize=${TOLVA_SANITIZE})
endif()

# TOLVA_FUZZ adds libFuzzer's coverage instrumentation to everything we build; the fuzz
# targets themselves link libFuzzer's main (tests/fuzz).
if(TOLVA_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TOLVA_FUZZ needs Clang (CMAKE_CXX_COMPILER=clang++)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
