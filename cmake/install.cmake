# What a host needs, below one prefix: headers, libraries, a CMake package and pkg-config files. The tree can be moved.
# `cmake --install DIR --component NAME` installs a part: runtime (what programs need that were linked already),
# development, tools.
include(CMakePackageConfigHelpers)

set(quarrin_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quarrin)
set(quarrin_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS quarrin quarrin_platform EXPORT quarrinTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/platform/quarrin_platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development)

install(EXPORT quarrinTargets NAMESPACE quarrin:: DESTINATION ${quarrin_package_dir} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quarrinConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/quarrinConfig.cmake INSTALL_DESTINATION ${quarrin_package_dir})
# CMake's own check of the architecture knows the width of a pointer alone.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/quarrinVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
include(${PROJECT_SOURCE_DIR}/cmake/quarrinArchitecture.cmake)
quarrin_architecture(QUARRIN_FAMILY QUARRIN_FLOATS)
math(EXPR QUARRIN_BITS "8 * ${CMAKE_SIZEOF_VOID_P}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/quarrinConfigVersion.cmake.in
    ${PROJECT_BINARY_DIR}/package/quarrinConfigVersion.cmake @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/quarrinConfig.cmake ${PROJECT_BINARY_DIR}/package/quarrinConfigVersion.cmake
    ${PROJECT_BINARY_DIR}/package/quarrinVersion.cmake ${PROJECT_SOURCE_DIR}/cmake/quarrinArchitecture.cmake
    DESTINATION ${quarrin_package_dir} COMPONENT development)

# The prefix of `cmake --install --prefix` is not known here: the files find it from their own place, as many folders
# up as the pkg-config folder lies below the prefix. An absolute folder cannot move and stands as it is.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(QUARRIN_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
    set(QUARRIN_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
else()
    file(RELATIVE_PATH quarrin_up /prefix/${quarrin_pkgconfig_dir} /prefix)
    string(REGEX REPLACE "/$" "" quarrin_up "${quarrin_up}")
    set(QUARRIN_PC_PREFIX "\${pcfiledir}/${quarrin_up}")
    set(QUARRIN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(QUARRIN_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
else()
    set(QUARRIN_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
foreach(name libquarrin libquarrin_platform)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/package/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/package/${name}.pc DESTINATION ${quarrin_pkgconfig_dir}
        COMPONENT development)
endforeach()
