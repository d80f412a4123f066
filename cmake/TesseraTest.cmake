if(CMAKE_CROSSCOMPILING)
  include(TesseraEmulated)
endif()

# tessera_test(NAME SOURCES file... [LIBRARIES target...] [LABELS label...] [TIMEOUT seconds]
#              [LARGE pattern...])
#
# One GoogleTest program and one CTest entry of the same name: a process a program keeps the
# emulated runs short. The program lands in <build>/tests.
#
# LARGE: tests that tell nothing about a processor and take minutes of an emulated one. They are an
# entry NAME_large of their own, labelled large, which scripts/test leaves out under emulation.
function(tessera_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;LARGE" ${ARGN})
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
  set(entries ${name})
  if(arg_LARGE)
    list(JOIN arg_LARGE ":" large)
    add_test(NAME ${name} COMMAND ${name} "--gtest_filter=-${large}")
    list(APPEND entries ${name}_large)
    add_test(NAME ${name}_large COMMAND ${name} "--gtest_filter=${large}")
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  # A pattern that has lost its tests must not pass for a test.
  set_tests_properties(
    ${entries} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}"
                          FAIL_REGULAR_EXPRESSION "Running 0 tests from 0 test suites")
  if(arg_LARGE)
    set_property(TEST ${name}_large APPEND PROPERTY LABELS large)
  endif()
  if(CMAKE_CROSSCOMPILING)
    tessera_emulated_test(${name} ${entries})
  endif()
endfunction()
