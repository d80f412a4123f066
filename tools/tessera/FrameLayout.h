#ifndef TESSERA_TOOLS_FRAMELAYOUT_H
#define TESSERA_TOOLS_FRAMELAYOUT_H

#include <tessera/Basics.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace tool {

/// Pixels as they lie in raw files.
enum class PixelFormat {
  Yuyv,   ///< bytes Y0 U Y1 V for each pair; an odd width still takes whole pairs
  Rgb16,  ///< 5-6-5 bits, little endian
  Rgb24,  ///< bytes R G B
  Rgb32,  ///< bytes R G B and one that is not read
  I420,   ///< planes Y, U, V, chroma halved both ways and rounded up
};

const char* nameOf(PixelFormat format);

struct FrameSize {
  int width = 0;
  int height = 0;

  bool operator==(const FrameSize& other) const {
    return width == other.width && height == other.height;
  }
  bool operator!=(const FrameSize& other) const { return !(*this == other); }
  /// The size that the codecs work on: width to a multiple of 32, height to one of 16.
  FrameSize rounded() const { return {tessera::PaddedWidth(width), tessera::PaddedHeight(height)}; }
  std::string text() const { return std::to_string(width) + "x" + std::to_string(height); }
};

/// What the software platform decodes at most; no board's limit is higher.
constexpr int longestSide = 16384;
constexpr std::uint64_t mostPixels = std::uint64_t{64} << 20;
bool isBeyondDecoders(FrameSize size);
/// "a decoder takes at most ...", for messages.
std::string decoderLimits();

/// Bytes of a frame without any padding.
std::uint64_t frameBytes(PixelFormat format, FrameSize size);

/// Copies an unpadded frame into the codecs' layout, which is the same frame at the rounded size.
/// The padding repeats the picture's edge: it costs the fewest bits, and where the codec does not
/// crop it is seen.
/// @param padded  frameBytes(format, size.rounded()) bytes
void layOut(PixelFormat format, FrameSize size, const std::uint8_t* frame, std::uint8_t* padded);

/// Takes an I420 picture out of the codecs' layout.
/// @param frame  frameBytes(PixelFormat::I420, size) bytes
void crop(FrameSize size, const std::uint8_t* padded, std::uint8_t* frame);

/// From planes to pairs, both without padding. A row of chroma goes to both rows that it stands
/// for.
void toYuyv(FrameSize size, const std::uint8_t* i420, std::uint8_t* yuyv);

/// In place: YUYV of the limited range to the full range.
void toFullRange(std::uint8_t* yuyv, std::size_t bytes);

/// In place: R G B to the 24-bit words of OpenMAX IL's 24bitARGB1887 (A 1 bit, R 8, G 8, B 7).
void toArgb1887(std::uint8_t* pixels, std::size_t bytes);
/// In place: R G B A to the bytes B G R A of OpenMAX IL's 32bitARGB8888.
void toArgb8888(std::uint8_t* pixels, std::size_t bytes);

}  // namespace tool

#endif  // TESSERA_TOOLS_FRAMELAYOUT_H
