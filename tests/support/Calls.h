#ifndef TESSERA_TESTS_SUPPORT_CALLS_H
#define TESSERA_TESTS_SUPPORT_CALLS_H

#include <tessera/tessera.h>

#include <functional>
#include <memory>

#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

/// The calls of the classes as tests make them. What a call may write is poisoned before it.
namespace support {

constexpr std::uint8_t poison = 0xA5;
constexpr unsigned poisonedNumber = 0xDEADBEEF;

inline unsigned length(const Bytes& bytes) {
  return static_cast<unsigned>(bytes.size());
}

/// A pixel format: 0 stands for YUYV, else bits of RGB.
using Bits = int;

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

struct Encoded {
  int result = 0;
  Bytes jpeg;
  unsigned size = poisonedNumber;
};

/// An object of one of them.
class JpegEncoder {
 public:
  explicit JpegEncoder(const JpegClass& kind)
      : kind_(kind), made_(kind.make(), ReleaseEncoderJPEG) {}

  IJPEGEncoder& operator*() { return *made_; }
  Encoded encode(Bytes frame, Bits bits, int width, int height, unsigned capacity = 1 << 21);
  Encoded encode(const Image& image, Bits bits = 0, unsigned capacity = 1 << 21) {
    return encode(raw(image, bits), bits, image.width, image.height, capacity);
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

/// What a JPEG keeps of the picture, in dB; 0 where it is none of that size.
double quality(const Bytes& jpeg, const Image& picture);

constexpr unsigned i420 = 0x30323449, yuyv = 0x56595559;

/// The two classes. MMAL crops the rounded size back to the picture's, takes fractional rates and
/// an aspect ratio, and waits 1 s for input and 100 ms for output; the OpenMAX IL class waits 10 s
/// for either.
struct H264Class {
  const char* name;
  bool mmal;
  IH264Encoder* (*make)();
};
const H264Class& mmalH264();
const H264Class& omxH264();

/// What every frame gets, and the OpenMAX IL class alone passes on.
constexpr long long timestamp = 40'000'000'000;

/// What Create gets.
struct Wish {
  unsigned format = yuyv;
  int width = 64, height = 48;
  unsigned rateNum = 30, rateDen = 1;
  unsigned aspectNum = 1, aspectDen = 1;
  unsigned bitrate = 500000;
};

/// One buffer of an encoder's output.
struct Output {
  CodecStatus status = CodecOk;
  Bytes data;
  unsigned size = poisonedNumber, flags = poisonedNumber;
};

struct Video {
  Bytes stream;
  std::vector<bool> keyFrames;  ///< as flagged
  int buffers = 0;
};

/// An object of one of them.
class H264Encoder {
 public:
  explicit H264Encoder(const H264Class& kind) : made_(kind.make(), ReleaseEncoderH264) {}

  IH264Encoder& operator*() { return *made_; }
  bool create(const Wish& wish = {});
  /// A frame of the size and format that Create got; scene(t).
  CodecStatus feed(int t = 0);
  CodecStatus feed(const Image& image);
  Output take(unsigned capacity = 1 << 20);
  Output takeArray();
  /// Takes the buffers of one frame, with both overloads in turn.
  bool collect(Video& video);
  /// One frame in, all of it out: whether that makes one picture.
  bool works(int frames = 1);

 private:
  std::unique_ptr<IH264Encoder, int (*)(IH264Encoder*)> made_;
  Wish wish_;
};

/// The sizes that drivers use, and a stream of each, whose every second picture is a key picture.
struct Size {
  int width, height;
};
constexpr Size sizes[] = {{64, 48}, {98, 34}};
struct Clip {
  H264Made made;
  std::vector<Yuv> pictures;  ///< what libavcodec makes of it
};
const Clip& clip(int which = 0);

/// Feeds one of its units, stamped 40 times its number from 1.
CodecStatus feed(IH264Decoder& decoder, int unit = 0, int which = 0);

/// What ProcessOutput left.
struct Picture {
  CodecStatus status = CodecOk;
  Bytes data;
  unsigned size = poisonedNumber, width = poisonedNumber, height = poisonedNumber;
  unsigned long long timestamp = poisonedNumber;
  /// Where there is none.
  bool untold() const { return width + height + timestamp == 0; }
};
Picture take(IH264Decoder& decoder, unsigned capacity = 20000);
Picture takeArray(IH264Decoder& decoder);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_CALLS_H
