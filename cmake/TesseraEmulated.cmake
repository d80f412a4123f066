# Tests of a cross build run under an emulator, and take many times as long.

string(REPLACE ";" "\",\"" emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
add_library(tessera_emulated_exec OBJECT "${PROJECT_SOURCE_DIR}/tests/support/EmulatedExec.cpp")
target_compile_definitions(tessera_emulated_exec PRIVATE TESSERA_TEST_EMULATOR="${emulator}")

# tessera_emulated_test(NAME ENTRY...): a program and its CTest entries.
function(tessera_emulated_test name)
  target_link_libraries(${name} PRIVATE tessera_emulated_exec)
  get_property(timeout TEST ${name} PROPERTY TIMEOUT)
  math(EXPR timeout "${timeout} * 4")
  set_tests_properties(${ARGN} PROPERTIES TIMEOUT ${timeout})
endfunction()
