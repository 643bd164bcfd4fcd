# What the compiler of the calling project makes code for. The build of the library keeps the answer, and the version
# file of the installed package asks again in the host's project.
#
# quarrin_architecture(FAMILY FLOATS) sets FAMILY to arm, aarch64, x86, x86_64 and so on, and on 32-bit ARM FLOATS to
# hard or soft, the two ways of handing over floating-point numbers. Either is empty when it cannot be told.
function(quarrin_architecture family_variable floats_variable)
    set(triplet)
    foreach(word IN ITEMS "${CMAKE_CXX_COMPILER_TARGET}" "${CMAKE_C_COMPILER_TARGET}" "${CMAKE_CXX_LIBRARY_ARCHITECTURE}"
                          "${CMAKE_C_LIBRARY_ARCHITECTURE}" "${CMAKE_LIBRARY_ARCHITECTURE}")
        if(NOT triplet)
            string(TOLOWER "${word}" triplet)
        endif()
    endforeach()
    string(REGEX REPLACE "-.*" "" from_triplet "${triplet}")
    string(TOLOWER "${CMAKE_SYSTEM_PROCESSOR}" from_system)
    if(CMAKE_CROSSCOMPILING OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL CMAKE_HOST_SYSTEM_PROCESSOR)
        set(candidates "${from_system}" "${from_triplet}")
    elseif(triplet)
        # Nobody named a processor, so CMake took this machine's. The compiler may be one for another machine.
        set(candidates "${from_triplet}")
    elseif(CMAKE_SIZEOF_VOID_P EQUAL 4 AND from_system MATCHES "^(x86_64|amd64)$")
        set(candidates) # a 32-bit compiler on a 64-bit machine, for whatever it is
    else()
        set(candidates "${from_system}")
    endif()

    # One processor has many spellings: those of uname, of distributions and of toolchain files written by hand. What is
    # none of them says nothing.
    set(family)
    foreach(word IN LISTS candidates)
        if(family)
            continue()
        elseif(word MATCHES "^(armeb|armv[0-9a-z]*b$)")
            set(family armeb)
        elseif(word STREQUAL "aarch64_be")
            set(family aarch64_be)
        elseif(word MATCHES "^(aarch64|arm64|armv8|armv9)")
            # A 64-bit processor can run a 32-bit system.
            set(family aarch64)
            if(CMAKE_SIZEOF_VOID_P EQUAL 4)
                set(family arm)
            endif()
        elseif(word MATCHES "^(arm|thumb)")
            set(family arm)
            if(CMAKE_SIZEOF_VOID_P EQUAL 8)
                set(family aarch64) # toolchain files written by hand say so
            endif()
        elseif(word MATCHES "^(x86_64|amd64|x64|i[3-6]86|x86)$")
            set(family x86_64)
            if(CMAKE_SIZEOF_VOID_P EQUAL 4)
                set(family x86)
                if(triplet MATCHES "x32$")
                    set(family x32)
                endif()
            endif()
        elseif(word MATCHES "^(mips|ppc|powerpc|riscv|s390|sparc|loongarch|sh4|m68k|alpha|hppa)")
            string(REGEX REPLACE "^powerpc" "ppc" family "${word}")
        endif()
    endforeach()

    set(floats)
    if(family STREQUAL "arm")
        string(REGEX MATCHALL "-mfloat-abi=[a-z]+" options "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}")
        if(options MATCHES "=hard$") # the last one counts
            set(floats hard)
        elseif(options MATCHES "=soft(fp)?$")
            set(floats soft) # softfp hands them over like soft
        elseif(from_system STREQUAL "armhf" OR triplet MATCHES "eabihf$")
            set(floats hard)
        elseif(from_system STREQUAL "armel" OR triplet MATCHES "^arm-linux-(gnu|musl)eabi$")
            set(floats soft) # exactly so: other makers of compilers write eabi for either
        endif()
    endif()
    set(${family_variable} "${family}" PARENT_SCOPE)
    set(${floats_variable} "${floats}" PARENT_SCOPE)
endfunction()
