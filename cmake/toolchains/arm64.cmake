# 64-bit ARM. NEON is part of its baseline.

set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TESSERA_CROSS_ARCH arm64)
set(TESSERA_CROSS_TRIPLET aarch64-linux-gnu)
set(TESSERA_CROSS_QEMU qemu-aarch64)
set(TESSERA_CROSS_CPU cortex-a53)
include("${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake")
