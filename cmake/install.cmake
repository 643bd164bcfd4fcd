# What a host needs, below one prefix: headers, libraries, a CMake package and pkg-config files. The tree can be moved.
include(CMakePackageConfigHelpers)

set(quarrin_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quarrin)
set(quarrin_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS quarrin quarrin_platform EXPORT quarrinTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/platform/quarrin_platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT quarrinTargets NAMESPACE quarrin:: DESTINATION ${quarrin_package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quarrinConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/quarrinConfig.cmake INSTALL_DESTINATION ${quarrin_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/quarrinConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/quarrinConfig.cmake ${PROJECT_BINARY_DIR}/package/quarrinConfigVersion.cmake
    DESTINATION ${quarrin_package_dir})

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
    install(FILES ${PROJECT_BINARY_DIR}/package/${name}.pc DESTINATION ${quarrin_pkgconfig_dir})
endforeach()
