#ifndef TESSERA_TESTS_MMAL_JPEG_JPEGFIXTURE_H
#define TESSERA_TESTS_MMAL_JPEG_JPEGFIXTURE_H

#include <tessera/CMmalJpegEncoder.h>

#include "support/JpegOracle.h"

/// A pixel format of the encoder: 0 stands for YUYV, else bits of RGB.
using Bits = int;

/// The picture as the component reads it: rows of the rounded width, the rounded number of them.
inline support::Bytes rawFrame(const support::Image& image, Bits bits) {
  const int width = support::round32(image.width), height = support::round16(image.height);
  return bits == 0 ? support::toYuyv(image, width, height)
                   : support::toRgb(image, bits, width, height);
}

struct Encoded {
  int result = 0;
  support::Bytes jpeg;
  unsigned int size = 0;
};

inline Encoded encode(CMmalJpegEncoder& encoder, support::Bytes frame, Bits bits, int width,
                      int height, unsigned int capacity = 1 << 22) {
  Encoded out{0, support::Bytes(capacity), 0xDEAD};
  const auto size = static_cast<unsigned int>(frame.size());
  out.result = bits == 0 ? encoder.EncodeYUYV(frame.data(), size, width, height, out.jpeg.data(),
                                              capacity, out.size)
                         : encoder.EncodeRGB(frame.data(), size, static_cast<unsigned int>(bits),
                                             width, height, out.jpeg.data(), capacity, out.size);
  out.jpeg.resize(out.result == 1 ? out.size : 0);
  return out;
}

inline Encoded encode(CMmalJpegEncoder& encoder, const support::Image& image, Bits bits) {
  return encode(encoder, rawFrame(image, bits), bits, image.width, image.height);
}

#endif  // TESSERA_TESTS_MMAL_JPEG_JPEGFIXTURE_H
