# SPDX-License-Identifier: MIT

# Toolchain file for the device: 32-bit ARM hard-float, with the sysroot that scripts/test-armhf extracts.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(ZARIP_SYSROOT "$ENV{ZARIP_SYSROOT}" CACHE PATH "Root folder of the device's system")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZARIP_SYSROOT)
set(CMAKE_SYSROOT ${ZARIP_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZARIP_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${ZARIP_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ZARIP_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Programs of the device, the tests among them, run in the emulator.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${ZARIP_SYSROOT})
