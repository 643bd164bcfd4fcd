# 32-bit ARM with hard float: Debian's cross compiler against the tree that armhf-sysroot.sh makes, or another pair, named
# by variables of CMake or of the environment: QUARRIN_ARMHF_TRIPLET begins the compiler's name, QUARRIN_ARMHF_ROOT is the
# tree of headers and libraries. Programs of the build, tests among them, run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

if(NOT QUARRIN_ARMHF_TRIPLET)
    set(QUARRIN_ARMHF_TRIPLET $ENV{QUARRIN_ARMHF_TRIPLET})
endif()
if(NOT QUARRIN_ARMHF_TRIPLET)
    set(QUARRIN_ARMHF_TRIPLET arm-linux-gnueabihf)
endif()
if(NOT QUARRIN_ARMHF_ROOT)
    set(QUARRIN_ARMHF_ROOT $ENV{QUARRIN_ARMHF_ROOT})
endif()
if(NOT QUARRIN_ARMHF_ROOT)
    get_filename_component(QUARRIN_ARMHF_ROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-root ABSOLUTE)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUARRIN_ARMHF_TRIPLET QUARRIN_ARMHF_ROOT)

set(CMAKE_C_COMPILER ${QUARRIN_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QUARRIN_ARMHF_TRIPLET}-g++)
set(CMAKE_SYSROOT ${QUARRIN_ARMHF_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Debian keeps libraries in a folder of their architecture; most trees for devices have just lib and usr/lib.
get_filename_component(quarrin_armhf_name ${QUARRIN_ARMHF_TRIPLET} NAME)
set(quarrin_armhf_lib lib)
if(IS_DIRECTORY ${CMAKE_SYSROOT}/usr/lib/${quarrin_armhf_name})
    set(CMAKE_LIBRARY_ARCHITECTURE ${quarrin_armhf_name})
    set(quarrin_armhf_lib lib/${quarrin_armhf_name})
endif()
# pkg-config sees the tree alone.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/${quarrin_armhf_lib}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

# How GCC passed 64-bit records before its version 7.1 is nothing that anything here was built with.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# FFmpeg and SDL load libraries that load others; the linker finds them in the tree.
set(quarrin_armhf_link "-Wl,-rpath-link,${CMAKE_SYSROOT}/usr/${quarrin_armhf_lib}")
string(APPEND quarrin_armhf_link " -Wl,-rpath-link,${CMAKE_SYSROOT}/${quarrin_armhf_lib}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${quarrin_armhf_link})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${quarrin_armhf_link})

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;${CMAKE_SYSROOT}")
