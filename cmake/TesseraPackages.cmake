# Debian packages by cpack: the library, its development files, the software platform, the tool.
# scripts/package makes them for one architecture.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessera)
set(CPACK_PACKAGE_VENDOR tessera)
set(CPACK_PACKAGE_CONTACT "the tessera authors <tessera@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
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

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtessera)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${runtime}")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "${PROJECT_DESCRIPTION}: shared library")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtessera-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtessera ${this_version}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers and documentation")

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
  set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME tessera-platform)
  set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS
      "${runtime}, libjpeg62-turbo, libx264-${TESSERA_DEB_x264_NUMBER}, ${av_packages}")
  set(CPACK_COMPONENT_PLATFORM_DESCRIPTION "software codecs behind the board's media interfaces")
endif()

if(TARGET tessera_tool)
  list(APPEND CPACK_COMPONENTS_ALL tool)
  set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tessera-tool)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
      "${runtime}, libtessera ${this_version}, libavformat${TESSERA_DEB_libavformat_NUMBER}, ${av_packages}")
  set(CPACK_COMPONENT_TOOL_DESCRIPTION "${PROJECT_DESCRIPTION}: command-line tool")
endif()

include(CPack)
