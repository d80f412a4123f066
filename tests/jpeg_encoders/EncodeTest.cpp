#include "support/Calls.h"
#include "support/FaultTest.h"

using namespace support;
using BothJpeg = Both<JpegClass>;
using MmalJpeg = TimedFaultTest;

INSTANTIATE_TEST_SUITE_P(Classes, BothJpeg, testing::Values(&mmalJpeg(), &omxJpeg()), NameOf());

namespace {

/// What is left of a picture in 16 bits a pixel.
Image coarse(Image image) {
  for (std::size_t i = 0; i < image.rgb.size(); ++i) {
    const int lost = i % 3 == 1 ? 2 : 3;
    const unsigned kept = image.rgb[i] >> lost;
    image.rgb[i] = static_cast<std::uint8_t>(kept << lost | kept >> (8 - 2 * lost));
  }
  return image;
}

const std::pair<int, int> pictureSizes[] = {{1, 1},     {2, 2},     {100, 50},
                                            {321, 241}, {705, 480}, {1366, 768}};

/// One object takes them all: each new size makes a new setup, for the format of its first picture.
TEST_P(BothJpeg, PicturesComeBackAsCloseAsTurboJpegs) {
  JpegEncoder encoder(*GetParam());
  for (const Bits bits : {0, 16, 24, 32})
    for (const auto& [width, height] : pictureSizes) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << ", " << bits << " bits");
      Image image = scene(width, height);
      if (bits == 16) image = coarse(image);
      const Image truth = encoder.expected(image);
      const Encoded ours = encoder.encode(image, bits);
      ASSERT_EQ(ours.result, 1);
      const JpegPicture picture = decodeJpeg(ours.jpeg);
      ASSERT_TRUE(picture.ok) << picture.error;
      EXPECT_EQ(picture.width, truth.width);
      EXPECT_EQ(picture.height, truth.height);
      const auto sampling = bits == 0 ? Sampling::Yuv422 : Sampling::Yuv420;
      EXPECT_EQ(picture.sampling, sampling);
      const bool tiny = width * height < 100;  // one rounding error decides there
      EXPECT_GE(quality(ours.jpeg, truth),
                quality(encodeJpeg(truth, sampling, 75), truth) - (tiny ? 4.5 : 0.2));
    }
}

/// Its luma is exact by the integer transforms that the platform uses. The hash is that of another
/// program's output (djpeg) on x86-64.
TEST_F(MmalJpeg, IsTheSameOnEveryMachine) {
  Bytes frame(96 * 64 * 2);
  std::uint32_t random = 7;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    random = random * 1664525u + 1013904223u;
    frame[i] = static_cast<std::uint8_t>((i >> 1) + (random >> 27));
  }
  const Bytes jpeg = JpegEncoder(mmalJpeg()).encode(frame, 0, 96, 64).jpeg;
  std::uint64_t hash = 0xcbf29ce484222325u;  // FNV-1a
  for (const std::uint8_t byte : decodeJpeg(jpeg).y) hash = (hash ^ byte) * 0x100000001b3u;
  EXPECT_EQ(hash, 0x82685e3618d275adu);
}

TEST_F(MmalJpeg, AnotherQualityIsTakenUntilTheSizeChanges) {
  const Image image = scene(320, 240);
  JpegEncoder encoder(mmalJpeg());
  const std::size_t usual = encoder.encode(image).jpeg.size();
  ASSERT_EQ(static_cast<CMmalJpegEncoder&>(*encoder).Initialize(0x56595559, 320, 240, 20), 1);
  EXPECT_LT(encoder.encode(image).jpeg.size(), usual / 2);
  encoder.encode(scene(64, 64));
  EXPECT_EQ(encoder.encode(image).jpeg.size(), usual);
}

TEST_F(MmalJpeg, ShortFrameIsTakenAsFarAsItGoes) {
  const Image image = scene(64, 48);
  JpegEncoder encoder(mmalJpeg());
  encoder.encode(flat(64, 48, 10, 20, 30));
  Bytes half = encoder.raw(image, 0);
  half.resize(half.size() / 2);
  control::startJournal();
  const Image seen = decodeJpegToRgb(encoder.encode(half, 0, 64, 48).jpeg);
  control::stopJournal();
  EXPECT_NE(calls().find(", 6144 bytes EOS)"), std::string::npos) << "not the buffer's";
  const auto third = [](const Bytes& rgb) { return Bytes(rgb.begin(), rgb.begin() + 64 * 16 * 3); };
  EXPECT_GT(psnr(third(seen.rgb), third(image.rgb)), 28);
}

/// The pixel format is that of the call that made the setup: a wider one at the same size does not
/// fit, and is refused.
TEST_F(MmalJpeg, AnotherFormatAtTheSameSizeKeepsTheSetup) {
  const Image image = scene(64, 48);
  JpegEncoder encoder(mmalJpeg());
  ASSERT_EQ(encoder.encode(image, 0).result, 1);
  expectAnswer<int>([&] { return encoder.encode(image, 32).result; }, 0,
                    "CMmalJpegEncoder::Encode - frame of 12288 bytes does not fit input "
                    "buffer of 6144\n",
                    "");
  EXPECT_EQ(encoder.encode(image, 0).result, 1);
}

}  // namespace
