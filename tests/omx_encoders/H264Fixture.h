#ifndef TESSERA_TESTS_OMX_ENCODERS_H264FIXTURE_H
#define TESSERA_TESTS_OMX_ENCODERS_H264FIXTURE_H

#include "OmxFixture.h"
#include "support/H264Oracle.h"

constexpr unsigned int yuyv = 0x56595559, i420 = 0x30323449;

/// One buffer of the encoder's output.
struct Output {
  CodecStatus status = CodecOk;
  support::Bytes data;
  unsigned int size = 0xDEAD;
  unsigned int flags = 0xDEAD;
};

inline bool create(COmxH264Encoder& encoder, int width, int height, unsigned int format = yuyv,
                   unsigned int bitrate = 1000000, unsigned int rate = 30) {
  return encoder.Create(format, width, height, rate, 1, 1, 1, bitrate);
}

inline CodecStatus feed(COmxH264Encoder& encoder, const support::Image& image,
                        unsigned int format = yuyv) {
  support::Bytes raw =
      format == yuyv ? support::toYuyv(image) : support::padded(support::toYuv(image));
  return encoder.ProcessInput(raw.data(), static_cast<unsigned int>(raw.size()), 0, 0);
}

inline Output collect(COmxH264Encoder& encoder, unsigned int capacity = 1 << 20) {
  Output out;
  out.data.resize(capacity);
  out.status = encoder.ProcessOutput(out.data.data(), capacity, out.size, out.flags);
  out.data.resize(out.status == CodecOk ? out.size : 0);
  return out;
}

/// What the stream's pictures hold of the frames.
inline double worstPsnr(const support::H264Stream& stream,
                        const std::vector<support::Image>& frames) {
  double worst = 99;
  for (std::size_t i = 0; i < frames.size() && i < stream.pictures.size(); ++i) {
    const support::Yuv truth = support::toYuv(frames[i]);
    support::Bytes luma;
    for (int y = 0; y < truth.height; ++y) {
      const auto row = stream.pictures[i].y.begin() + y * stream.pictures[i].width;
      luma.insert(luma.end(), row, row + truth.width);
    }
    worst = std::min(worst, support::psnr(luma, truth.y));
  }
  return worst;
}

#endif  // TESSERA_TESTS_OMX_ENCODERS_H264FIXTURE_H
