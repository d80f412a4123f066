#ifndef TESSERA_TESTS_SUPPORT_GUARDEDDECODE_H
#define TESSERA_TESTS_SUPPORT_GUARDEDDECODE_H

#include <algorithm>

#include "codec/cpu/JpegDecoder.h"
#include "support/GuardedMemory.h"
#include "support/Pictures.h"

namespace support {

/// What the software platform's JPEG decoder makes of a picture.
struct DecodedJpeg {
  using Result = codec::JpegDecoder::Result;
  Result result = Result::Unusable;
  Yuv picture;  ///< empty where unusable

  bool operator==(const DecodedJpeg& other) const {
    return result == other.result && picture.y == other.picture.y && picture.u == other.picture.u &&
           picture.v == other.picture.v;
  }
};

/// Decodes into the padded layout with unreadable memory right before or behind it, which holds
/// `former` everywhere.
inline DecodedJpeg decodeGuarded(codec::JpegDecoder& decoder, const std::uint8_t* jpeg,
                                 std::size_t length, std::uint8_t former = 0) {
  DecodedJpeg decoded;
  if (!decoder.open(jpeg, length)) return decoded;
  const unsigned stride = codec::roundUp(decoder.width(), 32);
  const unsigned rows = codec::roundUp(decoder.height(), 16);
  const std::size_t size = std::size_t{stride} * rows * 3 / 2;
  GuardedMemory memory(size);
  std::uint8_t* const block = former == 0 ? memory.atStart() : memory.atEnd(size);
  std::fill_n(block, size, former);
  decoded.result = decoder.decode(codec::planesOf(block, stride, rows));
  if (decoded.result != DecodedJpeg::Result::Unusable)
    decoded.picture =
        unpadded(block, static_cast<int>(decoder.width()), static_cast<int>(decoder.height()));
  return decoded;
}

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_GUARDEDDECODE_H
