# The board's own media libraries as tessera_platform (tessera::platform): headers from
# TESSERA_BOARD_ROOT/include, libraries from TESSERA_BOARD_ROOT/lib. Stops with a list of what is
# missing there.

set(board_headers bcm_host.h IL/OMX_Core.h IL/OMX_Component.h interface/mmal/mmal.h
                  interface/mmal/util/mmal_component_wrapper.h interface/vcos/vcos.h)
set(board_libraries bcm_host openmaxil mmal mmal_core mmal_util vcos)
# Present or not, depending on the system's age: the ways by which the others reach the GPU.
set(board_optional_libraries mmal_vc_client mmal_components vchiq_arm)

set(board_missing "")
foreach(header IN LISTS board_headers)
  if(NOT EXISTS "${TESSERA_BOARD_ROOT}/include/${header}")
    string(APPEND board_missing "  header   ${TESSERA_BOARD_ROOT}/include/${header}\n")
  endif()
endforeach()
foreach(library IN LISTS board_libraries)
  if(NOT EXISTS "${TESSERA_BOARD_ROOT}/lib/lib${library}.so")
    string(APPEND board_missing "  library  ${TESSERA_BOARD_ROOT}/lib/lib${library}.so\n")
  endif()
endforeach()
if(board_missing)
  message(FATAL_ERROR "The board's media libraries are not complete. Missing:\n${board_missing}"
                      "Point TESSERA_BOARD_ROOT at the directory that has them in include/ and lib/, "
                      "or build with -DTESSERA_PLATFORM=software.\n")
endif()

foreach(library IN LISTS board_optional_libraries)
  if(EXISTS "${TESSERA_BOARD_ROOT}/lib/lib${library}.so")
    list(APPEND board_libraries ${library})
  endif()
endforeach()

add_library(tessera_platform INTERFACE)
add_library(tessera::platform ALIAS tessera_platform)
# The published headers include each other both by full path and by the path below vcos.
target_include_directories(
  tessera_platform SYSTEM INTERFACE "${TESSERA_BOARD_ROOT}/include"
                                    "${TESSERA_BOARD_ROOT}/include/interface/vcos/pthreads"
                                    "${TESSERA_BOARD_ROOT}/include/interface/vmcs_host/linux")
target_link_directories(tessera_platform INTERFACE "${TESSERA_BOARD_ROOT}/lib")
# Time stamps as a pair of 32-bit halves, as the board's libraries are built.
target_compile_definitions(tessera_platform INTERFACE OMX_SKIP64BIT)
# Some libraries are reached only through constructors that register components, so none may be
# dropped for want of a symbol.
target_link_libraries(
  tessera_platform INTERFACE -Wl,--push-state,--no-as-needed ${board_libraries} -Wl,--pop-state)
