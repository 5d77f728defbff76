# Cross build for the reader: ARMv7, hard float, with Debian's cross compilers
# (crossbuild-essential-armhf) and a sysroot of Debian's armhf packages made by
# scripts/arm-sysroot.sh. The test programs run under qemu-arm in that sysroot.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
#
# QS_ARMHF_SYSROOT picks the sysroot (default: <build>/sysroot).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT QS_ARMHF_SYSROOT)
  set(QS_ARMHF_SYSROOT "${CMAKE_BINARY_DIR}/sysroot")
endif()
# try_compile projects see only the variables listed here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QS_ARMHF_SYSROOT)
set(QS_ARMHF_SYSROOT "${QS_ARMHF_SYSROOT}" CACHE PATH "Sysroot of Debian armhf packages")

if(NOT EXISTS "${QS_ARMHF_SYSROOT}/.qs-sysroot")
  message(FATAL_ERROR "No armhf sysroot at ${QS_ARMHF_SYSROOT}. "
                      "Run ./qs arm (it makes one), or scripts/arm-sysroot.sh ${QS_ARMHF_SYSROOT}")
endif()
find_program(QS_ARMHF_CXX arm-linux-gnueabihf-g++)
if(NOT QS_ARMHF_CXX)
  message(FATAL_ERROR "arm-linux-gnueabihf-g++ not found: run ./qs arm, or install crossbuild-essential-armhf")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${QS_ARMHF_SYSROOT}")
# The reader's processor: ARMv7-A with VFPv3-D16, hard-float calling convention.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard")

set(CMAKE_FIND_ROOT_PATH "${QS_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers from the sysroot's .pc files only.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QS_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${QS_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QS_ARMHF_SYSROOT}")

# Test programs (and gtest's test discovery) run through user-mode qemu, with
# the dynamic loader and libraries taken from the sysroot.
find_program(QS_QEMU_ARM qemu-arm)
if(QS_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QS_QEMU_ARM};-L;${QS_ARMHF_SYSROOT}")
endif()
