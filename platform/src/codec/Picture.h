#ifndef TESSERA_PLATFORM_SRC_CODEC_PICTURE_H
#define TESSERA_PLATFORM_SRC_CODEC_PICTURE_H

#include <cstddef>
#include <cstdint>

namespace codec {

/// Raw pixel formats, named by their bytes in memory from the lowest address on, unless noted.
enum class PixelFormat {
  Yuyv,      ///< Y0 U Y1 V for each pixel pair
  Rgb565,    ///< 16-bit little-endian words, red in bits 15..11, green 10..5, blue 4..0
  Rgb24,     ///< R G B
  Rgba32,    ///< R G B A, A ignored
  Bgra32,    ///< B G R A, A ignored
  Argb1887,  ///< 24-bit little-endian words: A in bit 23, red 22..15, green 14..7, blue 6..0
};

/// Bytes from one pixel to the next.
unsigned bytesPerPixel(PixelFormat format);

/// A packed picture that somebody else owns.
struct PackedPicture {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;  ///< readable bytes at data; rows beyond it are never read
  PixelFormat format = PixelFormat::Yuyv;
  unsigned stride = 0;  ///< bytes from one row to the next
  unsigned width = 0;   ///< pixels to use of each row
  unsigned height = 0;  ///< rows to use
};

/// Planar 4:2:0 with separate strides; planes belong to somebody else.
template <typename Byte>
struct BasicPlanes {
  Byte* y = nullptr;
  Byte* u = nullptr;
  Byte* v = nullptr;
  unsigned yStride = 0;
  unsigned uvStride = 0;
};
using Planes = BasicPlanes<std::uint8_t>;
using ConstPlanes = BasicPlanes<const std::uint8_t>;

/// Rounds up to a multiple of a power of two. The platform has its own on purpose: what it asks of
/// its clients must not change with what the library believes.
constexpr unsigned roundUp(unsigned value, unsigned multiple) {
  return (value + multiple - 1) & ~(multiple - 1);
}

/// Planes of the padded layout in one block: stride and sliceHeight luma rows, then U, then V at
/// half of each.
template <typename Byte>
BasicPlanes<Byte> planesOf(Byte* block, unsigned stride, unsigned sliceHeight) {
  const std::size_t luma = std::size_t{stride} * sliceHeight;
  return {block, block + luma, block + luma + luma / 4, stride, stride / 2};
}

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_PICTURE_H
