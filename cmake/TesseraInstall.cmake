# What `cmake --install` lays down, in four components: library, development, platform, tool. The whole
# tree works from wherever it is moved to: nothing in it names the prefix.

include(CMakePackageConfigHelpers)

# tessera_gzip(FILE) leaves FILE.gz in the build directory, the same bytes every time.
function(tessera_gzip file)
  get_filename_component(name "${file}" NAME)
  execute_process(
    COMMAND gzip -9n -c "${file}"
    OUTPUT_FILE "${PROJECT_BINARY_DIR}/${name}.gz" COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
endfunction()

set(config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tessera")

install(
  TARGETS tessera
  EXPORT tesseraTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library)
install(
  DIRECTORY "${PROJECT_SOURCE_DIR}/include/tessera"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development
  FILES_MATCHING PATTERN "*.h")

set_target_properties(tessera_platform PROPERTIES EXPORT_NAME platform)
if(TESSERA_PLATFORM_KIND STREQUAL "software")
  install(
    TARGETS tessera_platform
    EXPORT tesseraTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT platform NAMELINK_COMPONENT development)
  install(
    DIRECTORY "${PROJECT_SOURCE_DIR}/platform/include/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tessera-platform"
    COMPONENT development
    FILES_MATCHING PATTERN "*.h")
  set(TESSERA_PC_PLATFORM_CFLAGS "-I\${includedir}/tessera-platform")
else()
  # The board's libraries stay where they are.
  install(TARGETS tessera_platform EXPORT tesseraTargets)
  get_target_property(include_dirs tessera_platform INTERFACE_INCLUDE_DIRECTORIES)
  get_target_property(definitions tessera_platform INTERFACE_COMPILE_DEFINITIONS)
  list(TRANSFORM include_dirs PREPEND "-I")
  list(TRANSFORM definitions PREPEND "-D")
  list(JOIN include_dirs " " include_dirs)
  list(JOIN definitions " " definitions)
  set(TESSERA_PC_PLATFORM_CFLAGS "${include_dirs} ${definitions}")
endif()

# find_package(tessera)
install(
  EXPORT tesseraTargets
  NAMESPACE tessera::
  DESTINATION "${config_dir}"
  COMPONENT development)
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/tesseraConfig.cmake.in" "${PROJECT_BINARY_DIR}/tesseraConfig.cmake"
  INSTALL_DESTINATION "${config_dir}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/tesseraConfigVersion.cmake"
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(
  FILES "${PROJECT_BINARY_DIR}/tesseraConfig.cmake" "${PROJECT_BINARY_DIR}/tesseraConfigVersion.cmake"
  DESTINATION "${config_dir}"
  COMPONENT development)

# pkg-config: the way from tessera.pc to the prefix, so that it holds in a moved tree.
file(RELATIVE_PATH TESSERA_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" TESSERA_PC_TO_PREFIX "${TESSERA_PC_TO_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/tessera.pc.in" "${PROJECT_BINARY_DIR}/tessera.pc" @ONLY)
install(
  FILES "${PROJECT_BINARY_DIR}/tessera.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT development)

# The tool with its man page and completion.
if(TARGET tessera_tool)
  install(TARGETS tessera_tool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
  tessera_gzip("${PROJECT_SOURCE_DIR}/tools/tessera/tessera.1")
  install(
    FILES "${PROJECT_BINARY_DIR}/tessera.1.gz"
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT tool)
  install(
    FILES "${PROJECT_SOURCE_DIR}/tools/tessera/tessera.bash"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
    COMPONENT tool
    RENAME tessera
    OPTIONAL)
endif()

# The pages and the examples lie to each other as in the source tree, so that their links hold; sources that
# a page links come along.
install(
  FILES "${PROJECT_SOURCE_DIR}/LICENSE"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT library)
install(
  FILES "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
        "${PROJECT_SOURCE_DIR}/CONTRIBUTING.md"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT development
  OPTIONAL)
install(
  DIRECTORY "${PROJECT_SOURCE_DIR}/docs" "${PROJECT_SOURCE_DIR}/examples"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT development
  OPTIONAL
  FILES_MATCHING
  PATTERN "*.md"
  PATTERN "*.png"
  PATTERN "*.svg"
  PATTERN "*.tsv"
  PATTERN "*.cpp"
  PATTERN "*.h")
file(GLOB pages "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/docs/*.md")
foreach(page IN LISTS pages)
  file(READ "${page}" text)
  string(REGEX MATCHALL "\\((\\.\\./)?(include|src|tools)/[A-Za-z0-9_./-]+\\)" links "${text}")
  foreach(link IN LISTS links)
    string(REGEX REPLACE "^\\((\\.\\./)?|\\)$" "" file "${link}")
    get_filename_component(folder "${file}" DIRECTORY)
    install(FILES "${PROJECT_SOURCE_DIR}/${file}" DESTINATION "${CMAKE_INSTALL_DOCDIR}/${folder}"
            COMPONENT development)
  endforeach()
endforeach()

include(TesseraPackages)
