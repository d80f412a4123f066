#include "convert/FrameCopies.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "convert/Kernels.h"

namespace convert {
namespace {

/// The padded I420 layout. 64 bits throughout: any 32-bit width and height may come in, and what
/// lies beyond the destination is clipped, not wrapped round into it.
struct PaddedI420 {
  std::uint64_t stride;
  std::uint64_t u;
  std::uint64_t v;

  PaddedI420(std::uint32_t width, std::uint32_t height) {
    const std::uint64_t columns = (std::uint64_t{width} + 31) / 32;
    const std::uint64_t rows = (std::uint64_t{height} + 15) / 16;
    // The chroma of a picture this large is out of any 32-bit capacity's reach; the bound keeps the
    // offsets below 2^64.
    constexpr std::uint64_t outOfReach = std::uint64_t{1} << 40;
    const std::uint64_t blocks = std::min(columns * rows, outOfReach);
    stride = columns * 32;
    u = blocks * 512;
    v = u + u / 4;
  }
};

/// From this many bytes on pictures are stored past the caches, which would not keep them until
/// they are read. Measured: a reader of smaller ones gains more than the conversion loses.
constexpr std::uint64_t streamedSize = 8 << 20;

Stores StoresFor(std::uint64_t pictureSize) {
  return pictureSize >= streamedSize ? Stores::Streaming : Stores::Cached;
}

/// How many of `wanted` bytes at `offset` lie inside a buffer of `capacity` bytes.
std::uint64_t Inside(std::uint64_t offset, std::uint64_t wanted, std::uint64_t capacity) {
  return offset < capacity ? std::min(wanted, capacity - offset) : 0;
}

/// Copies every `step`-th byte, `count` of them. The offset comes apart from its base, since with a
/// count of 0 the two together may point outside the buffer.
void Gather(const std::uint8_t* source, std::size_t step, std::uint8_t* destination,
            std::uint64_t offset, std::uint64_t count) {
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    destination[static_cast<std::size_t>(offset) + i] = source[i * step];
  }
}

/// How many row pairs lie wholly inside both buffers.
std::uint32_t WholePairs(const PaddedI420& layout, std::uint64_t rowGroups,
                         std::uint64_t sourceGroups, std::uint32_t height, std::uint64_t capacity) {
  // V comes last, so a pair whose V row fits fits altogether.
  const std::uint64_t lastV = layout.v + rowGroups;
  const std::uint64_t fitting = capacity < lastV ? 0 : (capacity - lastV) / (layout.stride / 2) + 1;
  const std::uint64_t held = sourceGroups / rowGroups / 2;
  return static_cast<std::uint32_t>(std::min({std::uint64_t{height / 2}, held, fitting}));
}

/// Clips at the end of both buffers.
void YuyvToPaddedI420(const std::uint8_t* source, std::uint32_t sourceSize, std::uint32_t width,
                      std::uint32_t height, std::uint8_t* destination, std::uint32_t capacity) {
  if (width == 0 || height == 0) return;
  const PaddedI420 layout(width, height);
  const std::uint64_t rowGroups = (std::uint64_t{width} + 1) / 2;
  std::uint64_t groupsLeft = sourceSize / 4;

  const std::uint32_t pairs = WholePairs(layout, rowGroups, groupsLeft, height, capacity);
  const auto groups = static_cast<std::size_t>(rowGroups);
  const Stores stores = StoresFor(layout.u / 2 * 3);
  if (pairs > 0) {
    const PlanarRows planes{destination, destination + static_cast<std::size_t>(layout.u),
                            destination + static_cast<std::size_t>(layout.v),
                            static_cast<std::size_t>(layout.stride)};
    ActiveKernels().yuyvToPlanar({source, 4 * groups}, planes, pairs, groups, stores);
    source += 8 * groups * pairs;
    groupsLeft -= 2 * rowGroups * pairs;
  }

  // The last row of an odd height, and what one of the buffers cuts off.
  for (std::uint64_t y = 2 * std::uint64_t{pairs}; y < height && groupsLeft > 0; ++y) {
    const std::uint64_t held = std::min(rowGroups, groupsLeft);
    const std::uint64_t lumaRow = y * layout.stride;
    if (lumaRow >= capacity) break;
    Gather(source, 2, destination, lumaRow, Inside(lumaRow, 2 * held, capacity));
    if (y % 2 == 0) {
      const std::uint64_t chromaRow = y / 2 * (layout.stride / 2);
      const std::uint64_t u = layout.u + chromaRow;
      const std::uint64_t v = layout.v + chromaRow;
      Gather(source + 1, 4, destination, u, Inside(u, held, capacity));
      Gather(source + 3, 4, destination, v, Inside(v, held, capacity));
    }
    source += 4 * static_cast<std::size_t>(held);
    groupsLeft -= held;
  }
}

}  // namespace

void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize) {
  YuyvToPaddedI420(source, sourceSize, width, height, destination, capacity);
  outSize = capacity;
}

void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int, unsigned int,
              unsigned char* destination, unsigned int capacity, unsigned int& outSize) {
  outSize = std::min(sourceSize, capacity);
  if (outSize > 0) std::memcpy(destination, source, outSize);
}

void YUYVToNV12(const std::uint8_t* source, std::uint8_t* destination, std::int32_t width,
                std::int32_t height) {
  if (width < 1 || height < 1) return;
  const auto pixels = static_cast<std::size_t>(width);
  const auto rows = static_cast<std::size_t>(height);
  // No buffer holds a picture whose source is longer than the address space.
  if (rows > SIZE_MAX / 2 / pixels) return;

  const std::size_t pairs = rows / 2;
  const Stores stores = StoresFor(std::uint64_t{pixels} * rows / 2 * 3);
  ActiveKernels().yuyvToSemiPlanar({source, 2 * pixels},
                                   {destination, destination + pixels * rows, pixels}, pairs,
                                   pixels, stores);
  if (rows % 2 == 1) {
    Gather(source + 4 * pixels * pairs, 2, destination, 2 * pixels * pairs, pixels);
  }
}

}  // namespace convert
