# `cmake --install`: the library, its public headers, the daemon, the client, the sample HAL, a
# CMake package (find_package(vorn_core) -> vorn_core::vorn_core) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(VORN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn_core)

install(TARGETS vorn_core EXPORT vorn_coreTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Headers keep their folders: vorn_core.h includes "platform/LogMessage.h" and so on, so a host
# puts include/vorn_core on its include path.
install(FILES ${PROJECT_SOURCE_DIR}/vorn_core.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_core)
install(DIRECTORY
    ${PROJECT_SOURCE_DIR}/core ${PROJECT_SOURCE_DIR}/io ${PROJECT_SOURCE_DIR}/config
    ${PROJECT_SOURCE_DIR}/routing ${PROJECT_SOURCE_DIR}/service ${PROJECT_SOURCE_DIR}/services
    ${PROJECT_SOURCE_DIR}/platform
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_core
    FILES_MATCHING PATTERN "*.h")

# The daemon, the client and the sample HAL; the HAL sits next to libvorn_core.so, where the
# library's RUNPATH ($ORIGIN) finds the bare name "libvorn_hal.so".
foreach(tool vornd vornctl)
    if(TARGET ${tool})
        install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endforeach()
if(TARGET vorn_hal)
    install(TARGETS vorn_hal LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(EXPORT vorn_coreTargets
    NAMESPACE vorn_core::
    FILE vorn_coreTargets.cmake
    DESTINATION ${VORN_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorn_coreConfig.cmake.in
    ${PROJECT_BINARY_DIR}/vorn_coreConfig.cmake
    INSTALL_DESTINATION ${VORN_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vorn_coreConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vorn_coreConfig.cmake
              ${PROJECT_BINARY_DIR}/vorn_coreConfigVersion.cmake
    DESTINATION ${VORN_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from the .pc file's own place, so the tree can be installed
# with --prefix anywhere (or moved) and still describe itself.
file(RELATIVE_PATH VORN_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vorn_core.pc.in ${PROJECT_BINARY_DIR}/vorn_core.pc
    @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vorn_core.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
