# Flags for everything that this project compiles itself.

add_library(tessera_flags INTERFACE)
target_compile_options(
  tessera_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                          $<$<BOOL:${TESSERA_WERROR}>:-Werror>)

if(TESSERA_SANITIZE)
  # The compiler loses sight of what is initialised in instrumented code, the standard library's
  # own included.
  target_compile_options(tessera_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  # For the whole build, so that no object is left out.
  add_compile_options(-fsanitize=${TESSERA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TESSERA_SANITIZE})
endif()

if(TESSERA_COVERAGE)
  target_compile_options(tessera_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tessera_flags INTERFACE --coverage)
endif()

# A hardened link: no executable stack, no text relocations, no lazy binding.
add_link_options(-Wl,-z,noexecstack -Wl,-z,relro -Wl,-z,now -Wl,-z,text)
if(NOT TESSERA_SANITIZE)
  add_link_options(-Wl,--as-needed)
endif()
