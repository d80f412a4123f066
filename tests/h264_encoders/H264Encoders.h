#ifndef TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H
#define TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H

#include <tessera/CMmalH264Encoder.h>
#include <tessera/COmxH264Encoder.h>

#include <functional>
#include <memory>
#include <ostream>

#include "support/FaultTest.h"
#include "support/H264Oracle.h"

using support::Bytes;
using support::Image;

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
inline void PrintTo(const H264Class* kind, std::ostream* out) {
  *out << kind->name;
}

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
  unsigned size = 0xDEAD, flags = 0xDEAD;
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

/// Feeds pictures, and takes all of each before the next.
Video encode(H264Encoder& encoder, const Wish& wish, int frames,
             const std::function<Image(int t)>& picture);

inline unsigned length(const Bytes& bytes) {
  return static_cast<unsigned>(bytes.size());
}

/// Tests of both classes.
class BothH264 : public support::FaultTest, public testing::WithParamInterface<const H264Class*> {
  const support::VirtualTime time_;
};

#endif  // TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H
