# The warnings of this project, on top of the compiler's defaults.
function(quarrin_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor)
    if(QUARRIN_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
