// The same pictures on every machine. What H.264 decoding yields is exact by its standard, JPEG's
// luma by the integer transforms that the platform uses; the hashes are those of other programs'
// output (ffmpeg, djpeg) on x86-64.

#include <gtest/gtest.h>
#include <tessera/tessera.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <vector>

#include "support/Capture.h"
#include "support/Pictures.h"

namespace {

using support::Bytes;

constexpr std::uint64_t hashSeed = 0xcbf29ce484222325u;

// FNV-1a, 64 bits.
std::uint64_t hash(const Bytes& bytes, std::uint64_t value = hashSeed) {
  for (const std::uint8_t byte : bytes) value = (value ^ byte) * 0x100000001b3u;
  return value;
}

Bytes contents(const char* name) {
  std::ifstream file(std::string(TESSERA_TEST_DATA "/") + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

// Luma of a JPEG by way of the decoder pool.
Bytes decodedLuma(Bytes jpeg, int width, int height) {
  support::Capture quiet;
  DecoderPool* pool = GetDecoderPool();
  int gotWidth = 0, gotHeight = 0;
  const unsigned char* picture =
      pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned>(jpeg.size()),
                       gotWidth, gotHeight);
  Bytes luma;
  if (picture != nullptr && gotWidth == width && gotHeight == height)
    luma = support::unpadded(picture, width, height).y;
  ReleaseDecoderPool(pool);
  return luma;
}

}  // namespace

TEST(Identity, H264PicturesAreExact) {
  constexpr int width = 166, height = 98;
  Bytes stream = contents("clip.h264");
  ASSERT_FALSE(stream.empty());
  // An end-of-sequence unit, so that the last pictures come out.
  for (const int byte : {0, 0, 0, 1, 10}) stream.push_back(static_cast<std::uint8_t>(byte));

  IH264Decoder* decoder = nullptr;
  ASSERT_EQ(CreateH264Decoder(&decoder), 1);
  ASSERT_TRUE(decoder->Create(width, height, 0, nullptr));

  Bytes picture(support::round32(width) * support::round16(height) * 3 / 2);
  std::uint64_t value = hashSeed;
  int pictures = 0;
  const auto drain = [&] {
    unsigned size = 0, gotWidth = 0, gotHeight = 0;
    unsigned long long timestamp = 0;
    while (decoder->ProcessOutput(picture.data(), static_cast<unsigned>(picture.size()), size,
                                  gotWidth, gotHeight, timestamp) == CodecOk) {
      const support::Yuv yuv = support::unpadded(picture.data(), width, height);
      value = hash(yuv.v, hash(yuv.u, hash(yuv.y, value)));
      ++pictures;
    }
  };
  for (std::size_t at = 0; at < stream.size(); at += 4096) {
    const auto size = static_cast<unsigned>(std::min<std::size_t>(4096, stream.size() - at));
    CodecStatus fed = CodecTimeout;
    // On a slow machine the decoder may wait for its output to be fetched.
    for (int tries = 0; tries < 5 && fed == CodecTimeout; ++tries) {
      fed = decoder->ProcessInput(&stream[at], size, width, height, 0, 0);
      drain();
    }
    ASSERT_EQ(fed, CodecOk);
  }
  for (int idle = 0; idle < 20 && pictures < 12; ++idle) drain();
  FreeH264Decoder(decoder);
  EXPECT_EQ(pictures, 12);
  EXPECT_EQ(value, 0x898548da1370b83eu);
}

TEST(Identity, JpegLumaIsExact) {
  const Bytes luma = decodedLuma(contents("picture.jpg"), 226, 130);
  ASSERT_EQ(luma.size(), 226u * 130);
  EXPECT_EQ(hash(luma), 0x441836f6f684a450u);
}

TEST(Identity, JpegEncodingIsExact) {
  constexpr int width = 96, height = 64;
  Bytes frame(width * height * 2);
  std::uint32_t random = 7;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    random = random * 1664525u + 1013904223u;
    frame[i] = static_cast<std::uint8_t>((i >> 1) + (random >> 27));
  }
  Bytes jpeg(frame.size());
  unsigned size = 0;
  IJPEGEncoder* encoder = CreateEncoderJPEG();
  const int done =
      encoder->EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), width, height,
                          jpeg.data(), static_cast<unsigned>(jpeg.size()), size);
  ReleaseEncoderJPEG(encoder);
  ASSERT_EQ(done, 1);
  jpeg.resize(size);
  EXPECT_EQ(hash(decodedLuma(jpeg, width, height)), 0x82685e3618d275adu);
}
