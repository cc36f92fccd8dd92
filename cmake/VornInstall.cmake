# `cmake --install`: the library, its public headers, the daemon, the client, the sample HAL, a
# CMake package (find_package(vorn_core) -> vorn_core::vorn_core), a pkg-config file, the
# systemd unit and the man pages. Two components, which are also the two Debian packages that
# cpack makes (cmake/VornPackaging.cmake): "runtime" (what a device or server runs) and "dev"
# (what a host program is built with).
include(CMakePackageConfigHelpers)

# Relative to the prefix; "lib/systemd/system" is where Debian's systemd looks under /usr.
set(VORN_SYSTEMD_UNITDIR "lib/systemd/system" CACHE STRING "Where the systemd unit is installed")

set(VORN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn_core)

install(TARGETS vorn_core EXPORT vorn_coreTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# Headers keep their folders: vorn_core.h includes "platform/LogMessage.h" and so on, so a host
# puts include/vorn_core on its include path.
install(FILES ${PROJECT_SOURCE_DIR}/vorn_core.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_core
    COMPONENT dev)
install(DIRECTORY
    ${PROJECT_SOURCE_DIR}/core ${PROJECT_SOURCE_DIR}/io ${PROJECT_SOURCE_DIR}/config
    ${PROJECT_SOURCE_DIR}/routing ${PROJECT_SOURCE_DIR}/service ${PROJECT_SOURCE_DIR}/services
    ${PROJECT_SOURCE_DIR}/platform
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_core
    COMPONENT dev
    FILES_MATCHING PATTERN "*.h"
    # Side tables and helpers of the library's own .cpp files: no public header includes them.
    PATTERN "ConfigSchema.h" EXCLUDE
    PATTERN "FrontEndState.h" EXCLUDE
    PATTERN "ReplyRoute.h" EXCLUDE
    PATTERN "ServiceManagerLock.h" EXCLUDE
    PATTERN "LoopHandOff.h" EXCLUDE
    PATTERN "LoopIntake.h" EXCLUDE
    PATTERN "ServiceCore.h" EXCLUDE
    PATTERN "HalChannel.h" EXCLUDE
    PATTERN "HalHost.h" EXCLUDE
    PATTERN "ServiceRequest.h" EXCLUDE)

# The daemon, the client and the sample HAL; the HAL sits next to libvorn_core.so, where the
# library's RUNPATH ($ORIGIN) finds the bare name "libvorn_hal.so".
foreach(tool vornd vornctl vorn_halhost)
    if(TARGET ${tool})
        install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    endif()
endforeach()
if(TARGET vorn_hal)
    install(TARGETS vorn_hal LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
endif()

# The systemd unit names the installed daemon by its full path, which is known only when the
# install runs (`--prefix`, or /usr when cpack stages a package), so it is written then.
if(TARGET vornd)
    install(CODE "
        set(bindir \"${CMAKE_INSTALL_BINDIR}\")
        if(NOT IS_ABSOLUTE \"\${bindir}\")
            set(bindir \"\${CMAKE_INSTALL_PREFIX}/\${bindir}\")
        endif()
        set(CMAKE_INSTALL_FULL_BINDIR \"\${bindir}\")
        set(unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${VORN_SYSTEMD_UNITDIR}/vornd.service\")
        message(STATUS \"Installing: \${unit}\")
        configure_file(\"${PROJECT_SOURCE_DIR}/daemon/vornd.service.in\" \"\${unit}\" @ONLY)
        list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${unit}\")
        " COMPONENT runtime)
endif()

# Man pages, compressed as Debian installs them. vornctl's page is installed when present.
find_program(VORN_GZIP gzip)
set(VORN_MAN_OUTPUTS)
foreach(page vornd.8 vornctl.1)
    set(source ${PROJECT_SOURCE_DIR}/man/${page})
    if(NOT EXISTS ${source})
        continue()
    endif()
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    if(VORN_GZIP)
        set(output ${PROJECT_BINARY_DIR}/man/${page}.gz)
        add_custom_command(OUTPUT ${output}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
            COMMAND ${VORN_GZIP} -9 -n -c ${source} > ${output}
            DEPENDS ${source}
            VERBATIM)
        list(APPEND VORN_MAN_OUTPUTS ${output})
    else()
        set(output ${source})
    endif()
    install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT runtime)
endforeach()
if(VORN_MAN_OUTPUTS)
    add_custom_target(vorn_man ALL DEPENDS ${VORN_MAN_OUTPUTS})
endif()

install(EXPORT vorn_coreTargets
    NAMESPACE vorn_core::
    FILE vorn_coreTargets.cmake
    DESTINATION ${VORN_INSTALL_CMAKEDIR}
    COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorn_coreConfig.cmake.in
    ${PROJECT_BINARY_DIR}/vorn_coreConfig.cmake
    INSTALL_DESTINATION ${VORN_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vorn_coreConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vorn_coreConfig.cmake
              ${PROJECT_BINARY_DIR}/vorn_coreConfigVersion.cmake
    DESTINATION ${VORN_INSTALL_CMAKEDIR}
    COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own place, so the tree can be installed
# with --prefix anywhere (or moved) and still describe itself.
file(RELATIVE_PATH VORN_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vorn_core.pc.in ${PROJECT_BINARY_DIR}/vorn_core.pc
    @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vorn_core.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)

include(${CMAKE_CURRENT_LIST_DIR}/VornPackaging.cmake)
