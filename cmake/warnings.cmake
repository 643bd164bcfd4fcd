# The warnings of this project, on top of the compiler's defaults.
function(quarrin_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor)
    if(QUARRIN_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # GCC sees uninitialised values in instrumented standard headers; the ordinary build keeps the warning.
        target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
    if(QUARRIN_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
