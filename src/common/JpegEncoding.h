#ifndef TESSERA_SRC_COMMON_JPEGENCODING_H
#define TESSERA_SRC_COMMON_JPEGENCODING_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace common {

constexpr unsigned int defaultJpegQuality = 75;

/// A raw picture as the caller passes it.
struct RawFrame {
  const unsigned char* data;
  unsigned int size;
};

/// The caller's memory for a JPEG, and what came of it.
struct JpegMemory {
  unsigned char* data;
  unsigned int capacity;
  unsigned int size;   ///< of the JPEG, also of one that does not fit
  bool whole = false;  ///< whether it was copied in

  void Take(const std::uint8_t* jpeg, std::uint32_t length) {
    size = length;
    whole = length <= capacity;
    if (whole) std::memcpy(data, jpeg, length);
  }
};

/// Runs a caller-buffer encode into a new array and hands that over when it succeeds.
template <typename EncodeInto>
int EncodeIntoNewArray(unsigned int capacity, unsigned char** jpeg, unsigned int& jpegSize,
                       EncodeInto encodeInto) {
  std::unique_ptr<unsigned char[]> array(new unsigned char[capacity]);
  unsigned int produced = 0;
  const int result = encodeInto(array.get(), capacity, produced);
  *jpeg = result != 0 ? array.release() : nullptr;
  jpegSize = result != 0 ? produced : 0;
  return result;
}

/// What a component calls the RGB formats, by their depth.
template <typename Format>
struct RgbFormats {
  Format of16;
  Format of24;
  Format of32;

  /// @return null, after a line, for a depth without a format
  const Format* OfDepth(unsigned int bitsPerPixel, const char* className) const {
    if (bitsPerPixel == 24) return &of24;
    if (bitsPerPixel == 32) return &of32;
    if (bitsPerPixel == 16) return &of16;
    std::printf("%s::EncodeRGB - invalid input image pixel depth %d\n", className,
                static_cast<int>(bitsPerPixel));
    return nullptr;
  }
};

}  // namespace common

#endif  // TESSERA_SRC_COMMON_JPEGENCODING_H
