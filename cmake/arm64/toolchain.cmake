# SPDX-License-Identifier: Apache-2.0
# Cross build for ARM64 Linux: this machine's compiler, the system of VISTREL_SYSROOT.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VISTREL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/arm64-root" CACHE PATH
    "ARM64 system with the development packages")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VISTREL_SYSROOT)
get_filename_component(CMAKE_SYSROOT "${VISTREL_SYSROOT}" REALPATH)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
