# Warnings are on in our own code. Third-party headers come in through imported
# targets, whose include directories CMake marks as system headers.
function(tolva_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
        -Wno-unused-parameter)
    # Errors in CI and for developers (TOLVA_WARNINGS_AS_ERRORS, or TOLVA_WERROR=ON with make);
    # off by default, so that a user's or a packager's build never fails on a warning that a
    # newer compiler adds.
    if(TOLVA_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    # __FILE__ becomes the path relative to the source tree, so exception locations read
    # "api/Tolva/Tolva/TolvaCore/QxPlatformApi.cpp" whatever the checkout directory.
    target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
endfunction()
