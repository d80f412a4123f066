// A program that runs under an emulator starts another of its kind by way of the emulator too: the
// kernel cannot. Death tests start themselves again.

#include <unistd.h>

#include <algorithm>
#include <iterator>

extern "C" int execv(const char* path, char* const* arguments) {
  static const char* const emulator[] = {TESSERA_TEST_EMULATOR};
  const char* all[64] = {};
  const char** const last = all + 62;
  const char** next = std::copy(std::begin(emulator), std::end(emulator), all);
  *next++ = path;
  // The program's own name is the path.
  while (*++arguments != nullptr && next != last) *next++ = *arguments;
  return execve(all[0], const_cast<char* const*>(all), environ);
}
