# 32-bit ARM, hard-float: Debian's cross compiler, and what Debian's armhf packages hold, unpacked
# below ${VOK_ARM_SYSROOT} (scripts/test arm fetches it). Programs of the build run under qemu.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(VOK_ARM_TRIPLET arm-linux-gnueabihf)
set(VOK_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-arm/sysroot" CACHE PATH
    "Unpacked armhf packages to build against")
# Trials of the compiler configure a project of their own, which has to know it, too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VOK_ARM_SYSROOT)
get_filename_component(CMAKE_SYSROOT "${VOK_ARM_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/include")
  message(FATAL_ERROR "There are no armhf packages in ${CMAKE_SYSROOT}: run scripts/test arm once")
endif()

set(CMAKE_C_COMPILER ${VOK_ARM_TRIPLET}-gcc-12)
set(CMAKE_CXX_COMPILER ${VOK_ARM_TRIPLET}-g++-12)
# Nothing of ours is linked with what a GCC before 7 has made.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# What is linked comes from the sysroot; what runs while building (the Thrift compiler), never.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${VOK_ARM_TRIPLET}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${CMAKE_SYSROOT}")

# Where packages are made: their architecture, and where dpkg-shlibdeps finds what they need.
set(VOK_DEB_ARCHITECTURE armhf)
set(VOK_DEB_LIBRARIES "${CMAKE_SYSROOT}/usr/lib/${VOK_ARM_TRIPLET}"
                      "${CMAKE_SYSROOT}/lib/${VOK_ARM_TRIPLET}")
