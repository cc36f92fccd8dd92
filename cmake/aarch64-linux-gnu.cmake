# Cross-building for AArch64 Linux with Debian's cross compiler and the arm64 packages of the
# dependencies (installed side by side through multiarch). scripts/cross-aarch64.sh uses it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch keeps the arm64 libraries in /usr/lib/aarch64-linux-gnu and shares /usr/include;
# the architecture-specific headers live in /usr/include/aarch64-linux-gnu.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must describe the arm64 jsoncpp, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run under user-mode emulation. With multiarch the arm64 loader and libraries sit
# in the host's own tree (/lib/ld-linux-aarch64.so.1, /usr/lib/aarch64-linux-gnu), so the
# emulator's sysroot is /.
find_program(VORN_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(VORN_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VORN_QEMU_AARCH64};-L;/)
endif()
