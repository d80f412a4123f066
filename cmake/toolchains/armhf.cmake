# 32-bit ARM, hard float: Debian's baseline of ARMv7 with VFPv3-D16, without NEON. Vector kernels
# ask for NEON in their own source files and are chosen at run time.

set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TESSERA_CROSS_ARCH armhf)
set(TESSERA_CROSS_TRIPLET arm-linux-gnueabihf)
set(TESSERA_CROSS_QEMU qemu-arm)
set(TESSERA_CROSS_CPU cortex-a7)
# Notes on a calling convention of before GCC 7 concern nobody.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include("${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake")
