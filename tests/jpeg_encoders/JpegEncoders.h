#ifndef TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H
#define TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H

#include <tessera/CMmalJpegEncoder.h>
#include <tessera/COmxJpegEncoder.h>

#include <memory>
#include <ostream>

#include "support/FaultTest.h"
#include "support/JpegOracle.h"

using support::Bytes;
using support::Image;

/// A pixel format of the encoders: 0 stands for YUYV, else bits of RGB.
using Bits = int;
constexpr Bits allBits[] = {0, 16, 24, 32};

/// The two classes. Their JPEGs have the picture's own size (MMAL) or the component's rounded one;
/// their pixels of 24 and 32 bits are bytes R, G, B (MMAL) or little-endian words.
struct JpegClass {
  const char* name;
  bool mmal;
  IJPEGEncoder* (*make)();
  int (*encodeRgb)(IJPEGEncoder&, Bytes& frame, unsigned bits, int width, int height, Bytes& jpeg,
                   unsigned& size);
};
const JpegClass& mmalJpeg();
const JpegClass& omxJpeg();
inline void PrintTo(const JpegClass* kind, std::ostream* out) {
  *out << kind->name;
}

struct Encoded {
  int result = 0;
  Bytes jpeg;
  unsigned size = 0;
};

/// An object of one of them.
class JpegEncoder {
 public:
  explicit JpegEncoder(const JpegClass& kind)
      : kind_(kind), made_(kind.make(), ReleaseEncoderJPEG) {}

  IJPEGEncoder& operator*() { return *made_; }
  Encoded encode(Bytes frame, Bits bits, int width, int height, unsigned capacity = 1 << 21);
  Encoded encode(const Image& image, Bits bits = 0) {
    return encode(raw(image, bits), bits, image.width, image.height);
  }

  /// The picture as the component reads it: rows of the rounded width, the rounded number of them.
  Bytes raw(const Image& image, Bits bits) const;
  /// The picture that the JPEG is to show: where that has the rounded size, with its edges
  /// repeated.
  Image expected(const Image& image) const;

 private:
  const JpegClass& kind_;
  std::unique_ptr<IJPEGEncoder, int (*)(IJPEGEncoder*)> made_;
};

inline unsigned length(const Bytes& bytes) {
  return static_cast<unsigned>(bytes.size());
}

/// What a JPEG keeps of the picture, in dB.
double quality(const Bytes& jpeg, const Image& picture);

/// Tests of both classes.
class BothJpeg : public support::FaultTest, public testing::WithParamInterface<const JpegClass*> {};

#endif  // TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H
