// The same JPEG on every machine: its luma is exact by the integer transforms that the platform
// uses. The hash is that of another program's output (djpeg) on x86-64.

#include <gtest/gtest.h>
#include <tessera/tessera.h>

#include "support/JpegOracle.h"

TEST(Identity, JpegEncodingIsExact) {
  constexpr int width = 96, height = 64;
  support::Bytes frame(width * height * 2), jpeg(frame.size());
  std::uint32_t random = 7;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    random = random * 1664525u + 1013904223u;
    frame[i] = static_cast<std::uint8_t>((i >> 1) + (random >> 27));
  }
  unsigned size = 0;
  IJPEGEncoder* encoder = CreateEncoderJPEG();
  const int done =
      encoder->EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), width, height,
                          jpeg.data(), static_cast<unsigned>(jpeg.size()), size);
  ReleaseEncoderJPEG(encoder);
  ASSERT_EQ(done, 1);
  jpeg.resize(size);
  std::uint64_t hash = 0xcbf29ce484222325u;  // FNV-1a
  for (const std::uint8_t byte : support::decodeJpeg(jpeg).y) hash = (hash ^ byte) * 0x100000001b3u;
  EXPECT_EQ(hash, 0x82685e3618d275adu);
}
