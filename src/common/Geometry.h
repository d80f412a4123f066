#ifndef TESSERA_SRC_COMMON_GEOMETRY_H
#define TESSERA_SRC_COMMON_GEOMETRY_H

#include <cstdint>

namespace common {

/// A picture's size as it goes back and forth, in pixels.
struct PictureSize {
  int width;
  int height;

  bool operator==(const PictureSize& other) const {
    return width == other.width && height == other.height;
  }
};

/// Magnitude of a signed size; defined for the most negative one too.
constexpr std::uint32_t Magnitude(int size) {
  const auto bits = static_cast<std::uint32_t>(size);
  return size < 0 ? 0 - bits : bits;
}

/// The stride, in pixels, of a picture that many pixels wide: rounded up to a multiple of 32.
constexpr std::uint32_t PaddedWidth(std::uint32_t width) {
  return (width + 31) & ~std::uint32_t{31};
}

/// The rows of a plane for a picture that many rows high: rounded up to a multiple of 16.
constexpr std::uint32_t PaddedHeight(std::uint32_t height) {
  return (height + 15) & ~std::uint32_t{15};
}

}  // namespace common

#endif  // TESSERA_SRC_COMMON_GEOMETRY_H
