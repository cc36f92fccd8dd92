# `cpack -G DEB` in the build folder: two Debian packages from the install components.
#   vorn      runtime: libvorn_core.so.1, vornd, vornctl, the sample HAL, the systemd unit,
#             the man pages, the Python client
#   vorn-dev  development: headers, libvorn_core.so, the CMake package, the pkg-config file
# Packages install under /usr. The dependencies are named here rather than found by
# dpkg-shlibdeps, which has no information for Debian's private Android libraries.
set(CPACK_PACKAGE_NAME vorn)
set(CPACK_PACKAGE_VENDOR "libvorn_core developers")
set(VORN_PACKAGE_CONTACT "libvorn_core developers <vorn@localhost>"
    CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${VORN_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

# Debian's name of the target architecture (also right for a cross build to AArch64).
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(VORN_DEB_ARCH arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(VORN_DEB_ARCH amd64)
else()
    execute_process(COMMAND dpkg --print-architecture
        OUTPUT_VARIABLE VORN_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(VORN_DEB_ARCH)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VORN_DEB_ARCH})
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME vorn)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
# jsoncpp's runtime package carries the library's soname (libjsoncpp25 on Debian 12): asked of
# dpkg for the library this build links.
set(VORN_JSONCPP_PACKAGE libjsoncpp25)
find_library(VORN_JSONCPP_LIBRARY NAMES jsoncpp HINTS ${JSONCPP_LIBRARY_DIRS})
if(VORN_JSONCPP_LIBRARY)
    get_filename_component(_vorn_jsoncpp_real ${VORN_JSONCPP_LIBRARY} REALPATH)
    execute_process(COMMAND dpkg-query -S ${_vorn_jsoncpp_real}
        OUTPUT_VARIABLE _vorn_jsoncpp_owner OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_vorn_jsoncpp_owner MATCHES "^([a-z0-9.+-]+)(:[a-z0-9]+)?: ")
        set(VORN_JSONCPP_PACKAGE ${CMAKE_MATCH_1})
    endif()
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "libc6, libstdc++6, libgcc-s1, ${VORN_JSONCPP_PACKAGE}, android-liblog, android-libcutils")
# Only the Python client needs it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "python3 (>= 3.9)")
# The first line of each description is the package's synopsis.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Device-side command daemon\nvornd serves short text commands from a test station on an abstract local\nsocket, routes each to a device service and answers with one reply record;\nvornctl is its command-line client. Includes libvorn_core, a sample HAL, a\nsystemd unit (not enabled) and the Python client (import vorn_client).")
# libvorn_core.so.1 lands in a folder of ld.so's cache: a trigger runs ldconfig after dpkg has
# installed or removed it, and the shlibs file tells dpkg-shlibdeps which package a program
# built against it depends on.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/shlibs.in ${PROJECT_BINARY_DIR}/debian/shlibs
    @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME vorn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "vorn (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "Development files of libvorn_core\nHeaders, the CMake package (find_package(vorn_core)) and the pkg-config file\nfor building a host daemon against libvorn_core.")

# Debian's copyright file in each package's documentation folder.
foreach(component runtime dev)
    if(component STREQUAL "runtime")
        set(pkg vorn)
    else()
        set(pkg vorn-dev)
    endif()
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${pkg} COMPONENT ${component})
endforeach()

include(CPack)
