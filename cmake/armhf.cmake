# Toolchain for the device: 32-bit ARM Linux, hard float, with Debian's
# arm-linux-gnueabihf cross compiler. Libraries come only from the sysroot that
# scripts/armhf-deps extracts (COMSERVER_ARMHF_SYSROOT), never from the host;
# programs built here run under qemu-arm with that sysroot as their root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# This file is read again for every try_compile project; pass the sysroot on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES COMSERVER_ARMHF_SYSROOT)
if(NOT COMSERVER_ARMHF_SYSROOT OR NOT EXISTS "${COMSERVER_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "COMSERVER_ARMHF_SYSROOT must name the sysroot made by scripts/armhf-deps (make armhf-test does both)")
endif()
set(armhf_libdir "${COMSERVER_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")

set(CMAKE_FIND_ROOT_PATH "${COMSERVER_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Shared libraries of the sysroot name their own dependencies (libmosquitto
# needs libssl); the linker looks for those there too.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${armhf_libdir}")
endforeach()
# No build-tree run paths: libraries are found as on the device, in the
# standard directories of the (emulated) root.
set(CMAKE_SKIP_BUILD_RPATH ON)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${armhf_libdir}/pkgconfig:${COMSERVER_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${COMSERVER_ARMHF_SYSROOT}")

# CTest and test discovery run the test programs through qemu-arm. The variable
# is exported because the programs they start are run through binfmt_misc
# (scripts/armhf-emulation), where qemu-arm reads it from the environment.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/env "QEMU_LD_PREFIX=${COMSERVER_ARMHF_SYSROOT}" /usr/bin/qemu-arm)
