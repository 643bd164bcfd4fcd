# 32-bit ARM with hard float: Debian's cross compiler against the tree that armhf-sysroot.sh makes. Programs of the
# build, tests among them, run under qemu-arm. QUARRIN_ARMHF_ROOT names another tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT QUARRIN_ARMHF_ROOT)
    get_filename_component(QUARRIN_ARMHF_ROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-root ABSOLUTE)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUARRIN_ARMHF_ROOT)
set(CMAKE_SYSROOT ${QUARRIN_ARMHF_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config sees the tree alone.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

# How GCC passed 64-bit records before its version 7.1 is nothing that anything here was built with.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# FFmpeg and SDL load libraries that load others; the linker finds them in the tree.
set(quarrin_armhf_link "-Wl,-rpath-link,${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
string(APPEND quarrin_armhf_link " -Wl,-rpath-link,${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${quarrin_armhf_link})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${quarrin_armhf_link})

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;${CMAKE_SYSROOT}")
