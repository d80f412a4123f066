#include <set>
#include <thread>

#include "JpegEncoders.h"

namespace {

template <typename Encoder>
int encodeRgb(IJPEGEncoder& encoder, Bytes& frame, unsigned bits, int width, int height,
              Bytes& jpeg, unsigned& size) {
  return static_cast<Encoder&>(encoder).EncodeRGB(frame.data(), length(frame), bits, width, height,
                                                  jpeg.data(), length(jpeg), size);
}

}  // namespace

const JpegClass& mmalJpeg() {
  static const JpegClass kind{"CMmalJpegEncoder", true, CreateEncoderJPEG,
                              encodeRgb<CMmalJpegEncoder>};
  return kind;
}
const JpegClass& omxJpeg() {
  static const JpegClass kind{"COmxJpegEncoder", false,
                              []() -> IJPEGEncoder* { return new COmxJpegEncoder; },
                              encodeRgb<COmxJpegEncoder>};
  return kind;
}

Encoded JpegEncoder::encode(Bytes frame, Bits bits, int width, int height, unsigned capacity) {
  Encoded out{0, Bytes(capacity), 0xDEAD};
  // A negative size counts by its magnitude, for RGB.
  if (bits == 0)
    out.result = made_->EncodeYUYV(frame.data(), length(frame), width, height, out.jpeg.data(),
                                   capacity, out.size);
  else if (bits == 32)
    out.result = made_->EncodeRGB32(frame.data(), length(frame), -width, -height, out.jpeg.data(),
                                    capacity, out.size);
  else
    out.result = kind_.encodeRgb(*made_, frame, static_cast<unsigned>(bits), width, height,
                                 out.jpeg, out.size);
  if (out.result == 1) out.jpeg.resize(out.size);
  return out;
}

Bytes JpegEncoder::raw(const Image& image, Bits bits) const {
  const int width = support::round32(image.width), height = support::round16(image.height);
  if (bits == 0) return support::toYuyv(image, width, height);
  Bytes raw = support::toRgb(image, bits, width, height);
  if (kind_.mmal || bits == 16) return raw;
  // 32 bits: bytes B G R A. 24 bits: a word of 1, 8, 8 and 7 bits.
  for (std::size_t i = 0; i + 2 < raw.size(); i += static_cast<std::size_t>(bits) / 8) {
    const unsigned r = raw[i], g = raw[i + 1], b = raw[i + 2];
    const unsigned word = bits == 32 ? r << 16 | g << 8 | b : r << 15 | g << 7 | b >> 1;
    for (unsigned byte = 0; byte < 3; ++byte)
      raw[i + byte] = static_cast<std::uint8_t>(word >> (8 * byte));
  }
  return raw;
}

Image JpegEncoder::expected(const Image& image) const {
  if (kind_.mmal) return image;
  Image whole{support::round32(image.width), support::round16(image.height), {}};
  whole.rgb = support::toRgb(image, 24, whole.width, whole.height);
  return whole;
}

double quality(const Bytes& jpeg, const Image& picture) {
  return support::psnr(support::decodeJpegToRgb(jpeg).rgb, picture.rgb);
}

INSTANTIATE_TEST_SUITE_P(Classes, BothJpeg, testing::Values(&mmalJpeg(), &omxJpeg()),
                         support::NameOf());

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

const std::pair<int, int> sizes[] = {{1, 1},     {2, 2},     {100, 50},
                                     {321, 241}, {705, 480}, {1366, 768}};

/// One object takes them all: each new size makes a new setup, for the format of its first picture.
TEST_P(BothJpeg, PicturesComeBackAsCloseAsTurboJpegs) {
  JpegEncoder encoder(*GetParam());
  for (const Bits bits : allBits)
    for (const auto& [width, height] : sizes) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << ", " << bits << " bits");
      Image image = support::scene(width, height);
      if (bits == 16) image = coarse(image);
      const Image truth = encoder.expected(image);
      const Encoded ours = encoder.encode(image, bits);
      ASSERT_EQ(ours.result, 1);
      const support::JpegPicture picture = support::decodeJpeg(ours.jpeg);
      ASSERT_TRUE(picture.ok) << picture.error;
      EXPECT_EQ(picture.width, truth.width);
      EXPECT_EQ(picture.height, truth.height);
      const auto sampling = bits == 0 ? support::Sampling::Yuv422 : support::Sampling::Yuv420;
      EXPECT_EQ(picture.sampling, sampling);
      const bool tiny = width * height < 100;  // one rounding error decides there
      EXPECT_GE(quality(ours.jpeg, truth),
                quality(support::encodeJpeg(truth, sampling, 75), truth) - (tiny ? 4.5 : 0.2));
    }
}

TEST_P(BothJpeg, EachPictureGivesItsOwnJpegAndTwoObjectsDoNotDisturbEachOther) {
  const auto series = [](int from) {
    JpegEncoder encoder(*GetParam());
    std::vector<Bytes> jpegs;
    for (int t = from; t < from + 12; ++t)
      jpegs.push_back(encoder.encode(support::scene(160, 96, t)).jpeg);
    return jpegs;
  };
  const std::vector<Bytes> alone = series(0);
  std::vector<Bytes> together;
  std::thread first([&] { together = series(0); });
  std::thread second([&] { series(50); });
  first.join();
  second.join();
  EXPECT_EQ(together, alone);
  for (int t = 0; t < 12; ++t)
    EXPECT_GT(quality(alone[static_cast<std::size_t>(t)], support::scene(160, 96, t)), 30) << t;
  EXPECT_EQ(std::set<Bytes>(alone.begin(), alone.end()).size(), 12u);
}

TEST(MmalJpeg, AnotherQualityIsTakenUntilTheSizeChanges) {
  const Image image = support::scene(320, 240);
  JpegEncoder encoder(mmalJpeg());
  const std::size_t usual = encoder.encode(image).jpeg.size();
  ASSERT_EQ(static_cast<CMmalJpegEncoder&>(*encoder).Initialize(0x56595559, 320, 240, 20), 1);
  EXPECT_LT(encoder.encode(image).jpeg.size(), usual / 2);
  encoder.encode(support::scene(64, 64));
  EXPECT_EQ(encoder.encode(image).jpeg.size(), usual);
}

TEST(MmalJpeg, ShortFrameIsTakenAsFarAsItGoes) {
  const Image image = support::scene(64, 48);
  JpegEncoder encoder(mmalJpeg());
  encoder.encode(support::flat(64, 48, 10, 20, 30));
  Bytes half = encoder.raw(image, 0);
  half.resize(half.size() / 2);
  support::control::startJournal();
  const Image seen = support::decodeJpegToRgb(encoder.encode(half, 0, 64, 48).jpeg);
  support::control::stopJournal();
  EXPECT_NE(support::calls().find(", 6144 bytes EOS)"), std::string::npos) << "not the buffer's";
  const auto third = [](const Bytes& rgb) { return Bytes(rgb.begin(), rgb.begin() + 64 * 16 * 3); };
  EXPECT_GT(support::psnr(third(seen.rgb), third(image.rgb)), 28);
}

/// The pixel format is that of the call that made the setup: a wider one at the same size does not
/// fit, and is refused.
TEST(MmalJpeg, AnotherFormatAtTheSameSizeKeepsTheSetup) {
  const Image image = support::scene(64, 48);
  JpegEncoder encoder(mmalJpeg());
  ASSERT_EQ(encoder.encode(image, 0).result, 1);
  support::expectAnswer<int>([&] { return encoder.encode(image, 32).result; }, 0,
                             "CMmalJpegEncoder::Encode - frame of 12288 bytes does not fit input "
                             "buffer of 6144\n",
                             "");
  EXPECT_EQ(encoder.encode(image, 0).result, 1);
}

}  // namespace
