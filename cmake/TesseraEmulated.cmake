# Tests of a cross build run under an emulator.

# What tells nothing about a processor and takes minutes of an emulated one: pictures beyond 320x240,
# long clips for their bit rate, hundreds of inputs. <build>/tests/NAME under the emulator runs all.
set(without
    *1366x768* *780x360* *705x480* *321x241* *320x240_yuyv* *BitRate* *ConvertsSizesThatAreStreamed/*
    *AFrameLongerThanABuffer* *.OneSizeKeepsOneBuffer*
    *.PicturesOfAllSizesAndFormats*)
list(JOIN without ":" without)
set(TESSERA_EMULATED_ENVIRONMENT "GTEST_FILTER=-${without}" CACHE STRING "Environment of emulated tests")

string(REPLACE ";" "\",\"" emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
add_library(tessera_emulated_exec OBJECT "${PROJECT_SOURCE_DIR}/tests/support/EmulatedExec.cpp")
target_compile_definitions(tessera_emulated_exec PRIVATE TESSERA_TEST_EMULATOR="${emulator}")

function(tessera_emulated_test name)
  target_link_libraries(${name} PRIVATE tessera_emulated_exec)
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "${TESSERA_EMULATED_ENVIRONMENT}")
  get_property(timeout TEST ${name} PROPERTY TIMEOUT)
  math(EXPR timeout "${timeout} * 4")
  set_tests_properties(${name} PROPERTIES TIMEOUT ${timeout})
endfunction()
