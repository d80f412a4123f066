#ifndef TESSERA_TESTS_KERNEL_SCENE_H
#define TESSERA_TESTS_KERNEL_SCENE_H

#include <dirent.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "codec/Picture.h"
#include "support/MappedBuffers.h"

/// What the suites put through the devices, and what they look at afterwards.
namespace scene {

using Bytes = std::vector<std::uint8_t>;

struct Size {
  unsigned width, height;
  bool operator==(const Size& other) const {
    return width == other.width && height == other.height;
  }
};

/// One of the frames, each of another brightness; of even sides.
inline Bytes frame(Size size, unsigned number) {
  Bytes bytes(size.width * size.height * 3 / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] =
        static_cast<std::uint8_t>(64 + (i % size.width + i / size.width) / 8 + number * 8 % 96);
  return bytes;
}

/// How far a picture's samples are from that frame's on average.
inline double difference(const codec::ConstPlanes& seen, Size size, unsigned number) {
  const Bytes bytes = frame(size, number);
  const codec::ConstPlanes truth = codec::planesOf(bytes.data(), size.width, size.height);
  double sum = 0;
  for (const auto& [a, aStride, b, bStride, divisor] :
       {std::tuple(seen.y, seen.yStride, truth.y, truth.yStride, 1u),
        std::tuple(seen.u, seen.uvStride, truth.u, truth.uvStride, 2u),
        std::tuple(seen.v, seen.uvStride, truth.v, truth.uvStride, 2u)})
    for (unsigned y = 0; y < size.height / divisor; ++y)
      for (unsigned x = 0; x < size.width / divisor; ++x)
        sum += std::abs(a[y * aStride + x] - b[y * bStride + x]);
  return sum / static_cast<double>(bytes.size());
}

inline std::size_t openDescriptors() {
  std::size_t count = 0;
  DIR* const folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

}  // namespace scene

#endif  // TESSERA_TESTS_KERNEL_SCENE_H
