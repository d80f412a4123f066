#ifndef TESSERA_TESTS_SUPPORT_MAPPEDBUFFERS_H
#define TESSERA_TESTS_SUPPORT_MAPPEDBUFFERS_H

#include <cstddef>
#include <fstream>
#include <string>

namespace support {

/// Of devices of the kernel's or of those that stand in for them.
inline std::size_t mappedBuffers() {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);)
    count += line.find("/video") != line.npos || line.find("memfd") != line.npos;
  return count;
}

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_MAPPEDBUFFERS_H
