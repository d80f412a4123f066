# Debian packages by cpack: the library, its development files, the software platform, the tool.
# scripts/package makes them for one architecture.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessera)
set(CPACK_PACKAGE_VENDOR tessera)
set(TESSERA_PACKAGE_CONTACT "the tessera authors <tessera@tessera.invalid>"
    CACHE STRING "Maintainer of the Debian packages: whoever hands them out")
set(CPACK_PACKAGE_CONTACT "${TESSERA_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "media codecs of the GPU behind a few interfaces")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Empty asks dpkg for this machine's.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${TESSERA_CROSS_ARCH}")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# Dependencies are spelled out rather than searched: the search knows the packages of this machine's
# own architecture alone.
set(runtime "libc6 (>= 2.36), libgcc-s1 (>= 4.5), libstdc++6 (>= 12)")
set(this_version "(= ${PROJECT_VERSION})")

# debian_package(COMPONENT PACKAGE DESCRIPTION): its name, and what Debian wants in every package beside
# the payload. `cmake --install` without a component leaves these files out.
set(debian_dir "${PROJECT_BINARY_DIR}/debian")
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in" "${debian_dir}/changelog" @ONLY)
tessera_gzip("${debian_dir}/changelog")
function(debian_package component package description)
  string(TOUPPER "${component}" upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${description}" PARENT_SCOPE)
  set(doc "${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}")
  install(FILES "${PROJECT_BINARY_DIR}/changelog.gz" DESTINATION "${doc}" COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" DESTINATION "${doc}" COMPONENT ${component}
          RENAME copyright EXCLUDE_FROM_ALL)
endfunction()

debian_package(library libtessera
  "JPEG and H.264 codecs of a 32-bit ARM board's GPU, memory buffers in and out.
 This package holds the shared library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")
install(
  FILES "${PROJECT_SOURCE_DIR}/cmake/debian/libtessera.overrides"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides"
  COMPONENT library
  RENAME libtessera EXCLUDE_FROM_ALL)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${runtime}")

debian_package(development libtessera-dev
  "JPEG and H.264 codecs of a 32-bit ARM board's GPU, memory buffers in and out.
 This package holds headers, pkg-config and CMake files, pages and examples.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtessera ${this_version}")

if(TESSERA_PLATFORM_KIND STREQUAL "software" OR TARGET tessera_tool)
  find_package(PkgConfig REQUIRED)
  # The codecs' packages carry the number of their binary interface in the name.
  foreach(module IN ITEMS x264:1 libavcodec:0 libavformat:0 libavutil:0)
    string(REPLACE ":" ";" module "${module}")
    list(POP_BACK module place)
    pkg_check_modules(TESSERA_DEB_${module} QUIET ${module})
    string(REPLACE "." ";" numbers "${TESSERA_DEB_${module}_VERSION}")
    if(numbers)
      list(GET numbers ${place} TESSERA_DEB_${module}_NUMBER)
    endif()
  endforeach()
  set(av_packages
      "libavcodec${TESSERA_DEB_libavcodec_NUMBER}, libavutil${TESSERA_DEB_libavutil_NUMBER}")
endif()

if(TESSERA_PLATFORM_KIND STREQUAL "software")
  list(APPEND CPACK_COMPONENTS_ALL platform)
  string(APPEND CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS ", tessera-platform ${this_version}")
  debian_package(platform tessera-platform
    "The interfaces of the board's media libraries, with codecs on the CPU behind
 them, for machines without such a board.")
  file(WRITE "${debian_dir}/shlibs" "libtessera_platform 1 tessera-platform (>= ${PROJECT_VERSION})\n")
  set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONTROL_EXTRA "${debian_dir}/shlibs" "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")
  set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS
      "${runtime}, libjpeg62-turbo, libx264-${TESSERA_DEB_x264_NUMBER}, libyuv0, ${av_packages}")
endif()

if(TARGET tessera_tool)
  list(APPEND CPACK_COMPONENTS_ALL tool)
  debian_package(tool tessera-tool
    "The command-line tool tessera: JPEG and H.264 in and out of files and pipes.")
  set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
      "${runtime}, libtessera ${this_version}, libavformat${TESSERA_DEB_libavformat_NUMBER}, ${av_packages}")
endif()

include(CPack)
