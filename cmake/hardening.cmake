# What makes a fault in memory harder to use: for what is installed and for what stands for a host here. A sanitizer looks
# for such faults itself and does not go with all of it.
option(QUARRIN_HARDENING "Build with stack protector, checked C functions and read-only relocations" ON)

include(CheckPIESupported)
check_pie_supported(OUTPUT_VARIABLE quarrin_pie_output LANGUAGES CXX)

function(quarrin_hardening target)
    if(NOT QUARRIN_HARDENING OR QUARRIN_SANITIZE OR QUARRIN_BUILD_FUZZERS)
        return()
    endif()
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON) # a program is a PIE then
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
    # Checked functions need an optimising compiler. A distribution that asks for them has chosen its own level.
    if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
        set(optimising $<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>)
        # Some compilers define it themselves.
        target_compile_options(${target} PRIVATE $<${optimising}:-U_FORTIFY_SOURCE> $<${optimising}:-D_FORTIFY_SOURCE=2>)
    endif()
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endfunction()

# quarrin_final_rpath(TARGET LIBRARY): the program finds the library beside it by the same path in the build tree as when it
# is installed. A path that CMake changes at the installation ends with a colon before, and that means the folder that the
# program is started from.
function(quarrin_final_rpath target library)
    if(NOT QUARRIN_TOP_LEVEL OR CMAKE_SKIP_RPATH OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
        return()
    endif()
    set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
    set(folder ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR})
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
        COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
        COMMAND ${CMAKE_COMMAND} -E create_symlink $<TARGET_FILE:${library}>
                ${folder}/$<TARGET_SONAME_FILE_NAME:${library}>)
endfunction()
