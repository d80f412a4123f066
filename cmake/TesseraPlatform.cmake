# Decides whose media libraries libtessera.so drives, and offers them as tessera::platform.
#
#   TESSERA_PLATFORM_KIND   board or software

set(TESSERA_PLATFORM_KIND "${TESSERA_PLATFORM}")
if(TESSERA_PLATFORM_KIND STREQUAL "auto")
  if(EXISTS "${TESSERA_BOARD_ROOT}/include/bcm_host.h" AND EXISTS "${TESSERA_BOARD_ROOT}/lib")
    set(TESSERA_PLATFORM_KIND board)
  else()
    set(TESSERA_PLATFORM_KIND software)
  endif()
endif()
message(STATUS "Platform: ${TESSERA_PLATFORM_KIND}")

if(TESSERA_PLATFORM_KIND STREQUAL "board")
  include(TesseraBoardPlatform)
elseif(TESSERA_PLATFORM_KIND STREQUAL "software")
  # platform/CMakeLists.txt makes the target tessera_platform.
else()
  message(FATAL_ERROR "TESSERA_PLATFORM must be auto, board or software, not '${TESSERA_PLATFORM}'")
endif()
