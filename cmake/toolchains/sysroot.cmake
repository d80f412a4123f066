# What the cross toolchain files share: compiler, sysroot, where to look for packages, the emulator.
#
# Set before inclusion: TESSERA_CROSS_ARCH (Debian's name), TESSERA_CROSS_TRIPLET, TESSERA_CROSS_QEMU,
# TESSERA_CROSS_CPU (the processor to emulate).
# TESSERA_SYSROOT, in the cache or the environment, takes a sysroot from another place.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${TESSERA_CROSS_TRIPLET})

# Compiler checks configure scratch projects of their own; this hands them the choice.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSERA_SYSROOT)

if(NOT TESSERA_SYSROOT)
  if(DEFINED ENV{TESSERA_SYSROOT})
    set(TESSERA_SYSROOT "$ENV{TESSERA_SYSROOT}")
  else()
    get_filename_component(TESSERA_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${TESSERA_CROSS_ARCH}"
                           ABSOLUTE)
  endif()
endif()
if(NOT EXISTS "${TESSERA_SYSROOT}/usr/include/${TESSERA_CROSS_TRIPLET}")
  message(FATAL_ERROR "No ${TESSERA_CROSS_ARCH} sysroot in ${TESSERA_SYSROOT}.\n"
                      "Make it with:  scripts/sysroot ${TESSERA_CROSS_ARCH}\n")
endif()

find_program(TESSERA_CROSS_CXX NAMES ${TESSERA_CROSS_TRIPLET}-g++ NO_CMAKE_FIND_ROOT_PATH)
find_program(TESSERA_CROSS_EMULATOR NAMES ${TESSERA_CROSS_QEMU} NO_CMAKE_FIND_ROOT_PATH)
if(NOT TESSERA_CROSS_CXX)
  message(FATAL_ERROR "${TESSERA_CROSS_TRIPLET}-g++ is missing: install g++-${TESSERA_CROSS_TRIPLET}\n")
endif()

set(CMAKE_CXX_COMPILER "${TESSERA_CROSS_CXX}")
set(CMAKE_SYSROOT "${TESSERA_SYSROOT}")

# Programs come from this machine, everything else from the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TESSERA_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TESSERA_SYSROOT}/usr/lib/${TESSERA_CROSS_TRIPLET}/pkgconfig:${TESSERA_SYSROOT}/usr/share/pkgconfig")

# Loader and libraries come from the one sysroot: a mix of two C libraries does not start.
if(TESSERA_CROSS_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TESSERA_CROSS_EMULATOR};-L;${TESSERA_SYSROOT};-cpu;${TESSERA_CROSS_CPU}")
endif()
