#ifndef TESSERA_TESTS_SUPPORT_JPEGORACLE_H
#define TESSERA_TESTS_SUPPORT_JPEGORACLE_H

#include <string>

#include "support/Pictures.h"

namespace support {

/// The chroma samplings that TurboJPEG writes.
enum class Sampling { Yuv444, Yuv422, Yuv420, Grey, Yuv440, Yuv411 };

/// A decoded JPEG: its planes in their own sampling, as TurboJPEG's accurate transform gives them.
struct JpegPicture {
  bool ok = false;
  std::string error;
  int width = 0;
  int height = 0;
  Sampling sampling = Sampling::Yuv420;
  Bytes y, u, v;
  int chromaWidth = 0;
  int chromaHeight = 0;
};

JpegPicture decodeJpeg(const Bytes& jpeg);

/// The same as RGB.
Image decodeJpegToRgb(const Bytes& jpeg);

/// A baseline (or progressive) JPEG.
Bytes encodeJpeg(const Image& image, Sampling sampling, int quality, bool progressive = false);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_JPEGORACLE_H
