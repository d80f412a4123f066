#ifndef TESSERA_TESTS_OMX_ENCODERS_JPEGFIXTURE_H
#define TESSERA_TESTS_OMX_ENCODERS_JPEGFIXTURE_H

#include "OmxFixture.h"
#include "support/JpegOracle.h"

/// The picture as the component reads it: rows of the rounded width, the rounded number of them.
/// bits: 0 YUYV, 16 words of 5, 6 and 5 bits, 24 words of 1, 8, 8 and 7 bits, 32 bytes B G R A.
inline support::Bytes rawFrame(const support::Image& image, int bits) {
  const int width = support::round32(image.width), height = support::round16(image.height);
  if (bits == 0) return support::toYuyv(image, width, height);
  if (bits == 16) return support::toRgb(image, 16, width, height);
  support::Bytes raw = support::toRgb(image, bits, width, height);
  for (std::size_t i = 0; i + 2 < raw.size(); i += static_cast<std::size_t>(bits) / 8) {
    const unsigned r = raw[i], g = raw[i + 1], b = raw[i + 2];
    const unsigned word = bits == 32 ? r << 16 | g << 8 | b : r << 15 | g << 7 | b >> 1;
    for (int byte = 0; byte < 3; ++byte)
      raw[i + static_cast<std::size_t>(byte)] = static_cast<std::uint8_t>(word >> (8 * byte));
  }
  return raw;
}

struct Encoded {
  int result = 0;
  support::Bytes jpeg;
  unsigned int size = 0;
};

inline Encoded encode(COmxJpegEncoder& encoder, support::Bytes frame, int bits, int width,
                      int height, unsigned int capacity = 1 << 21) {
  Encoded out{0, support::Bytes(capacity), 0xDEAD};
  const auto size = static_cast<unsigned int>(frame.size());
  out.result = bits == 0 ? encoder.EncodeYUYV(frame.data(), size, width, height, out.jpeg.data(),
                                              capacity, out.size)
                         : encoder.EncodeRGB(frame.data(), size, static_cast<unsigned int>(bits),
                                             width, height, out.jpeg.data(), capacity, out.size);
  out.jpeg.resize(out.result == 1 ? out.size : 0);
  return out;
}

inline Encoded encode(COmxJpegEncoder& encoder, const support::Image& image, int bits) {
  return encode(encoder, rawFrame(image, bits), bits, image.width, image.height);
}

/// The picture with its right and lower edge repeated up to the rounded size, as it is encoded.
inline support::Image rounded(const support::Image& image) {
  support::Image whole{support::round32(image.width), support::round16(image.height), {}};
  for (int y = 0; y < whole.height; ++y)
    for (int x = 0; x < whole.width; ++x) {
      const std::uint8_t* pixel =
          image.at(std::min(x, image.width - 1), std::min(y, image.height - 1));
      whole.rgb.insert(whole.rgb.end(), pixel, pixel + 3);
    }
  return whole;
}

#endif  // TESSERA_TESTS_OMX_ENCODERS_JPEGFIXTURE_H
