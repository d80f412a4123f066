if(CMAKE_CROSSCOMPILING)
  include(TesseraEmulated)
endif()

# tessera_test(NAME SOURCES file... [LIBRARIES target...] [LABELS label...] [TIMEOUT seconds])
#
# One GoogleTest program and one CTest entry of the same name: a process a program keeps the
# emulated runs short. The program lands in <build>/tests.
function(tessera_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE tessera_flags ${arg_LIBRARIES} GTest::gtest GTest::gtest_main)
  # What the compiler would gain on a test it loses many times over while compiling it.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release,RelWithDebInfo>:-O1>)
  set_target_properties(
    ${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests"
                       INSTALL_RPATH "${PROJECT_BINARY_DIR}/lib")
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
  if(CMAKE_CROSSCOMPILING)
    tessera_emulated_test(${name})
  endif()
endfunction()
