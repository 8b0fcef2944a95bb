# Cross-compilation for 32-bit ARM (hard float) against the sysroot that scripts/armhf makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(ZOL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
get_filename_component(ZOL_SYSROOT ${ZOL_SYSROOT} ABSOLUTE)
if(NOT EXISTS ${ZOL_SYSROOT}/usr)
    message(FATAL_ERROR "No sysroot in ${ZOL_SYSROOT}: run scripts/armhf first")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT ${ZOL_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${ZOL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZOL_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${ZOL_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ZOL_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# GCC says that the parameter passing of some std types changed in GCC 7.1; everything here is newer.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${ZOL_SYSROOT})
