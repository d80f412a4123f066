#include <tessera/Diagnostics.h>

#include <functional>
#include <limits>
#include <random>
#include <set>
#include <thread>

#include "JpegFixture.h"

namespace {

using support::Bytes;
using support::Image;

constexpr int allBits[] = {0, 16, 24, 32};

// ------------------------------------------------------------------------------ round trips

using Case = std::tuple<std::pair<int, int>, int>;

/// What is left of a picture in 16 bits a pixel.
Image coarse(const Image& image) {
  Image result = image;
  for (std::size_t i = 0; i < result.rgb.size(); ++i) {
    const int lost = i % 3 == 1 ? 2 : 3;
    const unsigned kept = result.rgb[i] >> lost;
    result.rgb[i] = static_cast<std::uint8_t>(kept << lost | kept >> (8 - 2 * lost));
  }
  return result;
}

class OmxJpeg : public OmxTest, public testing::WithParamInterface<Case> {};

TEST_P(OmxJpeg, HasTheRoundedSizeAndItsColoursInTheirPlaces) {
  const auto [size, bits] = GetParam();
  const Image image = size.first < 100 ? support::flat(size.first, size.second, 200, 60, 30)
                                       : support::bars(size.first, size.second);
  COmxJpegEncoder encoder;
  const Encoded ours = encode(encoder, image, bits);
  ASSERT_EQ(ours.result, 1);
  const support::JpegPicture picture = support::decodeJpeg(ours.jpeg);
  ASSERT_TRUE(picture.ok) << picture.error;
  EXPECT_EQ(picture.width, support::round32(size.first));
  EXPECT_EQ(picture.height, support::round16(size.second));
  const Image seen = support::decodeJpegToRgb(ours.jpeg);
  const int bars = size.first < 100 ? 1 : 8;
  for (int bar = 0; bar < bars; ++bar) {
    const int x = (2 * bar + 1) * image.width / (2 * bars), y = image.height / 2;
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(seen.at(x, y)[c], image.at(x, y)[c], 12) << "bar " << bar << " channel " << c;
  }
}

TEST_P(OmxJpeg, IsAsCloseAsTurboJpegs) {
  const auto [size, bits] = GetParam();
  Image image = support::scene(size.first, size.second);
  if (bits == 16) image = coarse(image);
  const Image whole = rounded(image);
  COmxJpegEncoder encoder;
  const Encoded ours = encode(encoder, image, bits);
  ASSERT_EQ(ours.result, 1);
  const auto sampling = bits == 0 ? support::Sampling::Yuv422 : support::Sampling::Yuv420;
  EXPECT_EQ(support::decodeJpeg(ours.jpeg).sampling, sampling);
  const Bytes peer = support::encodeJpeg(whole, sampling, 75);
  const double psnr = support::psnr(support::decodeJpegToRgb(ours.jpeg).rgb, whole.rgb);
  const double peers = support::psnr(support::decodeJpegToRgb(peer).rgb, whole.rgb);
  // One colour is a matter of one rounding error.
  EXPECT_GE(psnr, peers - (size.first == 1 ? 3 : 0.2));
}

const std::pair<int, int> sizes[] = {{1, 1}, {100, 50}, {321, 241}, {640, 480}, {1366, 768}};
std::string nameOf(const testing::TestParamInfo<Case>& tested) {
  const auto [size, bits] = tested.param;
  return std::to_string(size.first) + "x" + std::to_string(size.second) + "_" +
         std::to_string(bits);
}
INSTANTIATE_TEST_SUITE_P(Sizes, OmxJpeg,
                         testing::Combine(testing::ValuesIn(sizes), testing::ValuesIn(allBits)),
                         nameOf);

using OmxJpegEncoder = OmxTest;

TEST_F(OmxJpegEncoder, AThousandPicturesOfAllSizesAndFormatsThroughOneObject) {
  std::mt19937 random(11);
  COmxJpegEncoder encoder;
  for (int i = 0; i < 1000; ++i) {
    const Image image = support::scene(16 + static_cast<int>(random() % 100),
                                       8 + static_cast<int>(random() % 60), i);
    const int bits = allBits[random() % 4];
    const Encoded ours = encode(encoder, image, bits);
    ASSERT_EQ(ours.result, 1) << i;
    if (i % 10 != 0) continue;
    const Image seen = support::decodeJpegToRgb(ours.jpeg);
    ASSERT_GT(support::psnr(seen.rgb, rounded(image).rgb), 26) << i << " " << bits;
  }
  EXPECT_EQ(TesseraLayout::counts(encoder), (std::vector<int>{0, 0, 0, 0}));
}

TEST_F(OmxJpegEncoder, ObjectsDoNotDisturbEachOther) {
  const auto series = [](int from) {
    COmxJpegEncoder encoder;
    std::vector<Bytes> jpegs;
    for (int t = from; t < from + 12; ++t)
      jpegs.push_back(encode(encoder, support::scene(160, 96, t), 0).jpeg);
    return jpegs;
  };
  const std::vector<Bytes> alone = series(0);
  std::vector<Bytes> together;
  std::thread first([&] { together = series(0); });
  std::thread second([&] { series(50); });
  first.join();
  second.join();
  EXPECT_EQ(together, alone);
  EXPECT_EQ(std::set<Bytes>(alone.begin(), alone.end()).size(), 12u);
}

// ------------------------------------------------------------------------------ arguments

TEST_F(OmxJpegEncoder, WrongArgumentsAreToldAndNothingIsSent) {
  COmxJpegEncoder encoder;
  Bytes frame(128 * 64 * 2), jpeg(1000);
  unsigned int size = 7;
  unsigned char* array = nullptr;
  const auto length = static_cast<unsigned int>(frame.size());
  const std::string wrongSize = "COmxJpegEncoder::Encode- invalid input image size ";
  const std::string shortFrame = "COmxJpegEncoder::Encode - frame of ";
  const int least = std::numeric_limits<int>::min(), most = std::numeric_limits<int>::max();
  const auto caller = [&](unsigned char* from, unsigned int bytes, int width, int height,
                          unsigned char* to, unsigned int capacity) {
    return encoder.EncodeYUYV(from, bytes, width, height, to, capacity, size);
  };
  const auto rgb = [&](unsigned int bits, int width, int height) {
    return encoder.EncodeRGB(frame.data(), length, bits, width, height, jpeg.data(), 1000, size);
  };
  const std::pair<std::function<int()>, std::string> table[] = {
      {[&] { return caller(nullptr, 5, 100, 50, jpeg.data(), 1000); },
       "COmxJpegEncoder::Encode - invalid input buffer size or buffer pointer\n"},
      {[&] { return caller(frame.data(), 0, 100, 50, jpeg.data(), 1000); },
       "COmxJpegEncoder::Encode - invalid input buffer size or buffer pointer\n"},
      {[&] { return caller(frame.data(), length, 100, 50, nullptr, 1000); },
       "COmxJpegEncoder::Encode - invalid output buffer or buffer size pointer\n"},
      {[&] { return caller(frame.data(), length, 100, 50, jpeg.data(), 0); },
       "COmxJpegEncoder::Encode - invalid output buffer or buffer size pointer\n"},
      {[&] { return caller(frame.data(), length, 0, 50, jpeg.data(), 1000); },
       wrongSize + "0x50\n"},
      {[&] { return caller(frame.data(), length, -100, 50, jpeg.data(), 1000); },
       wrongSize + "-100x50\n"},
      {[&] { return caller(frame.data(), length - 1, 100, 50, jpeg.data(), 1000); },
       shortFrame + "16383 bytes, the input buffer takes 16384\n"},
      {[&] { return caller(frame.data(), length, most, most, jpeg.data(), 1000); },
       shortFrame + "16384 bytes, the input buffer takes 4294967296\n"},
      {[&] { return rgb(8, 100, 50); },
       "COmxJpegEncoder::EncodeRGB - invalid input image pixel depth 8\n"},
      {[&] { return rgb(32, 100, 50); },
       shortFrame + "16384 bytes, the input buffer takes 32768\n"},
      {[&] {
         return encoder.EncodeRGB32(frame.data(), length, least, -1, jpeg.data(), 1000, size);
       },
       shortFrame + "16384 bytes, the input buffer takes 4294967296\n"},
      {[&] { return encoder.EncodeYUYV(frame.data(), length, 100, 50, nullptr, size); },
       "COmxJpegEncoder::EncodeYUYV- invalid output buffer pointer\n"},
      {[&] { return encoder.EncodeRGB32(frame.data(), length, 100, 50, nullptr, size); },
       "COmxJpegEncoder::EncodeRGB32 - invalid output buffer pointer\n"}};
  tessera_platform::startJournal();
  for (const auto& [work, line] : table) {
    support::Capture capture;
    EXPECT_EQ(work(), 0);
    EXPECT_EQ(capture.out(), line);
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(size, 7u);
  }
  // The allocating ones leave no buffer behind.
  const std::pair<std::pair<int, int>, bool> sizesOfArrays[] = {{{100, 0}, false},
                                                                {{-100, 50}, false},
                                                                {{most, most}, false},
                                                                {{0, 50}, true},
                                                                {{least, least}, true}};
  for (const auto& [picture, isRgb] : sizesOfArrays) {
    support::Capture capture;
    array = jpeg.data();
    size = 7;
    const auto [width, height] = picture;
    EXPECT_EQ(isRgb ? encoder.EncodeRGB32(frame.data(), length, width, height, &array, size)
                    : encoder.EncodeYUYV(frame.data(), length, width, height, &array, size),
              0);
    EXPECT_EQ(capture.out(), std::string("COmxJpegEncoder::") +
                                 (isRgb ? "EncodeRGB32 -" : "EncodeYUYV-") +
                                 " invalid input image size " + std::to_string(width) + "x" +
                                 std::to_string(height) + "\n");
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(size, 0u);
  }
  tessera_platform::stopJournal();
  EXPECT_EQ(journalText(), "");
  EXPECT_EQ(encode(encoder, support::scene(100, 50), 0).result, 1) << "the object stays usable";
}

TEST_F(OmxJpegEncoder, AllocatingOverloadsHandTheArrayOver) {
  COmxJpegEncoder encoder;
  for (const bool rgb : {false, true}) {
    const Image image = support::scene(160, 96);
    Bytes frame = rawFrame(image, rgb ? 32 : 0);
    const auto length = static_cast<unsigned int>(frame.size());
    unsigned char* array = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(rgb ? encoder.EncodeRGB32(frame.data(), length, -160, 96, &array, size)
                  : encoder.EncodeYUYV(frame.data(), length, 160, 96, &array, size),
              1);
    EXPECT_EQ(Bytes(array, array + size), encode(encoder, image, rgb ? 32 : 0).jpeg);
    delete[] array;
    // A picture that needs more than the raw frame fails and leaves nothing.
    Bytes noise = support::toYuyv(support::noise(32, 16, 3));
    array = noise.data();
    EXPECT_EQ(encoder.EncodeYUYV(noise.data(), static_cast<unsigned int>(noise.size()), 2, 2,
                                 &array, size),
              0);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(size, 0u);
  }
}

TEST_F(OmxJpegEncoder, ASmallBufferIsToldTheSizeNeeded) {
  COmxJpegEncoder encoder;
  const Image image = support::scene(320, 240);
  const Encoded whole = encode(encoder, image, 0);
  const auto needed = static_cast<unsigned int>(whole.jpeg.size());
  const Encoded less = encode(encoder, rawFrame(image, 0), 0, 320, 240, needed - 1);
  EXPECT_EQ(less.result, 0);
  EXPECT_EQ(less.size, needed);
  const Encoded exact = encode(encoder, rawFrame(image, 0), 0, 320, 240, needed);
  EXPECT_EQ(exact.result, 1);
  EXPECT_EQ(exact.jpeg, whole.jpeg);
}

TEST_F(OmxJpegEncoder, QualityOutsideItsRangeCountsAs75) {
  COmxJpegEncoder encoder;
  const std::pair<unsigned int, unsigned int> table[] = {
      {4, 75}, {5, 5}, {75, 75}, {100, 100}, {101, 75}};
  for (const auto& [asked, taken] : table) {
    tessera_platform::startJournal();
    EXPECT_EQ(encoder.SetupOutputPort(64, 64, asked), 1);
    tessera_platform::stopJournal();
    EXPECT_NE(journalText().find("QFactor 341: " + std::to_string(taken)), std::string::npos)
        << journalText();
  }
}

TEST_F(OmxJpegEncoder, CallsOfDerivedClassesGoThroughTheSlot) {
  struct Derived : COmxJpegEncoder {
    using COmxJpegEncoder::EncodeYUYV;
    int EncodeYUYV(unsigned char*, unsigned int, int, int, unsigned char* jpeg,
                   unsigned int capacity, unsigned int& size) override {
      std::fill_n(jpeg, capacity, 42);
      size = capacity;
      return 1;
    }
  } derived;
  unsigned char frame[1] = {}, *array = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(static_cast<IJPEGEncoder&>(derived).EncodeYUYV(frame, 1, 3, 2, &array, size), 1);
  EXPECT_EQ(Bytes(array, array + size), Bytes(12, 42));
  delete[] array;
}

}  // namespace
