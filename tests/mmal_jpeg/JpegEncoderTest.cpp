#include <gtest/gtest.h>
#include <tessera/CMmalJpegEncoder.h>
#include <tessera_platform/control.h>

#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "JpegFixture.h"
#include "support/Capture.h"
#include "support/Interpose.h"

namespace {

using support::Bytes;
using support::Image;

constexpr int allBits[] = {0, 16, 24, 32};

// ------------------------------------------------------------------------------ round trips

using Case = std::tuple<std::pair<int, int>, Bits>;

class RoundTrip : public testing::TestWithParam<Case> {};

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

TEST_P(RoundTrip, IsAsCloseAsTurboJpegs) {
  const auto [size, bits] = GetParam();
  Image image = support::scene(size.first, size.second);
  if (bits == 16) image = coarse(image);
  CMmalJpegEncoder encoder;
  const Encoded ours = encode(encoder, image, bits);
  ASSERT_EQ(ours.result, 1);

  const support::JpegPicture picture = support::decodeJpeg(ours.jpeg);
  ASSERT_TRUE(picture.ok) << picture.error;
  EXPECT_EQ(picture.width, image.width);
  EXPECT_EQ(picture.height, image.height);
  const auto sampling = bits == 0 ? support::Sampling::Yuv422 : support::Sampling::Yuv420;
  EXPECT_EQ(picture.sampling, sampling);
  const Bytes peer = support::encodeJpeg(image, sampling, 75);
  const double psnr = support::psnr(support::decodeJpegToRgb(ours.jpeg).rgb, image.rgb);
  const double peers = support::psnr(support::decodeJpegToRgb(peer).rgb, image.rgb);
  const bool tiny = image.width * image.height < 100;  // one rounding error decides there
  EXPECT_GE(psnr, peers - (tiny ? 3 : 0.1));
}

std::string nameOf(const testing::TestParamInfo<Case>& tested) {
  const auto [size, bits] = tested.param;
  return std::to_string(size.first) + "x" + std::to_string(size.second) + "_" +
         (bits == 0 ? "yuyv" : "rgb" + std::to_string(bits));
}

const std::pair<int, int> sizes[] = {{1, 1},     {2, 2},     {100, 50},
                                     {321, 241}, {705, 480}, {1366, 768}};
INSTANTIATE_TEST_SUITE_P(Sizes, RoundTrip,
                         testing::Combine(testing::ValuesIn(sizes), testing::ValuesIn(allBits)),
                         nameOf);

TEST(JpegEncoder, KeepsColoursInTheirPlaces) {
  const Image image = support::bars(321, 50);
  for (const Bits bits : allBits) {
    CMmalJpegEncoder encoder;
    const Encoded ours = encode(encoder, image, bits);
    ASSERT_EQ(ours.result, 1);
    const Image seen = support::decodeJpegToRgb(ours.jpeg);
    for (int bar = 0; bar < 8; ++bar) {
      const int x = (2 * bar + 1) * image.width / 16;
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(seen.at(x, 25)[c], image.at(x, 25)[c], 12) << bits << " bits, bar " << bar;
    }
  }
}

TEST(JpegEncoder, EachPictureGivesItsOwnJpegAndTwoObjectsDoNotDisturbEachOther) {
  const auto series = [](int from) {
    CMmalJpegEncoder encoder;
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
  for (int t = 0; t < 12; ++t) {
    const Image seen = support::decodeJpegToRgb(alone[static_cast<std::size_t>(t)]);
    EXPECT_GT(support::psnr(seen.rgb, support::scene(160, 96, t).rgb), 30) << t;
  }
  EXPECT_EQ(std::set<Bytes>(alone.begin(), alone.end()).size(), 12u);
}

TEST(JpegEncoder, PaddingIsNotSeen) {
  const Image image = support::scene(100, 50);
  CMmalJpegEncoder encoder;
  Bytes frame = rawFrame(image, 24);
  const Bytes clean = encode(encoder, frame, 24, 100, 50).jpeg;
  for (std::size_t i = 0; i < frame.size(); ++i)
    if (i % (128 * 3) >= 100 * 3 || i / (128 * 3) >= 50) frame[i] = 0xEE;
  EXPECT_EQ(encode(encoder, frame, 24, 100, 50).jpeg, clean);
}

TEST(JpegEncoder, AnotherQualityIsTakenUntilTheSizeChanges) {
  const Image image = support::scene(320, 240);
  CMmalJpegEncoder encoder;
  const std::size_t usual = encode(encoder, image, 0).jpeg.size();
  ASSERT_EQ(encoder.Initialize(0x56595559, 320, 240, 20), 1);
  EXPECT_LT(encode(encoder, image, 0).jpeg.size(), usual / 2);
  encode(encoder, support::scene(64, 64), 0);
  EXPECT_EQ(encode(encoder, image, 0).jpeg.size(), usual);
}

// ------------------------------------------------------------------- interface and ownership

TEST(JpegEncoder, AllocatingOverloadsHandTheArrayOver) {
  IJPEGEncoder* const encoder = CreateEncoderJPEG();
  for (const bool rgb : {false, true}) {
    const Image image = support::scene(160, 96);
    Bytes frame = rawFrame(image, rgb ? 32 : 0);
    const auto length = static_cast<unsigned int>(frame.size());
    unsigned char* jpeg = nullptr;
    unsigned int size = 0;
    // A negative size counts by its magnitude, for RGB.
    ASSERT_EQ(rgb ? encoder->EncodeRGB32(frame.data(), length, -160, -96, &jpeg, size)
                  : encoder->EncodeYUYV(frame.data(), length, 160, 96, &jpeg, size),
              1);
    const Bytes result(jpeg, jpeg + size);
    delete[] jpeg;
    EXPECT_GT(support::psnr(support::decodeJpegToRgb(result).rgb, image.rgb), 30);

    // The raw picture's size is all that the array gets: too little for a JPEG of one pixel.
    jpeg = frame.data();
    size = 77;
    EXPECT_EQ(rgb ? encoder->EncodeRGB32(frame.data(), 64 * 16, 1, 1, &jpeg, size)
                  : encoder->EncodeYUYV(frame.data(), 64 * 16, 1, 1, &jpeg, size),
              0);
    EXPECT_EQ(jpeg, nullptr);
    EXPECT_EQ(size, 0u);
  }
  EXPECT_EQ(ReleaseEncoderJPEG(encoder), 1);
  EXPECT_EQ(ReleaseEncoderJPEG(nullptr), 0);
  EXPECT_TRUE(tessera_platform::census().empty());
}

TEST(JpegEncoder, AllocatingOverloadsGoThroughTheVirtualOnes) {
  struct Derived : CMmalJpegEncoder {
    using CMmalJpegEncoder::EncodeRGB32;
    using CMmalJpegEncoder::EncodeYUYV;
    int EncodeYUYV(unsigned char*, unsigned int, int, int, unsigned char* jpeg,
                   unsigned int capacity, unsigned int& size) override {
      *jpeg = 'Y';
      size = capacity;
      return 1;
    }
    int EncodeRGB32(unsigned char*, unsigned int, int width, int height, unsigned char* jpeg,
                    unsigned int capacity, unsigned int& size) override {
      *jpeg = 'R';
      size = capacity + static_cast<unsigned int>(width * height);
      return 1;
    }
  } derived;
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  EXPECT_EQ(derived.EncodeYUYV(nullptr, 0, 6, 5, &jpeg, size), 1);
  EXPECT_EQ(size, 60u);
  EXPECT_EQ(*jpeg, 'Y');
  delete[] jpeg;
  EXPECT_EQ(derived.EncodeRGB32(nullptr, 0, -6, -5, &jpeg, size), 1);
  EXPECT_EQ(size, 120u + 30u);
  EXPECT_EQ(*jpeg, 'R');
  delete[] jpeg;
}

TEST(JpegEncoder, CapacityTooSmallTellsTheSizeNeeded) {
  const Image image = support::scene(160, 96);
  CMmalJpegEncoder encoder;
  const Bytes whole = encode(encoder, image, 0).jpeg;
  const auto needed = static_cast<unsigned int>(whole.size());
  support::Capture capture;
  const Encoded small = encode(encoder, rawFrame(image, 0), 0, 160, 96, needed - 1);
  EXPECT_EQ(small.result, 0);
  EXPECT_EQ(small.size, needed);
  EXPECT_EQ(encode(encoder, rawFrame(image, 0), 0, 160, 96, needed).jpeg, whole);
  EXPECT_EQ(capture.out() + capture.err(), "");
}

TEST(JpegEncoder, TheCallersBufferCostsNoAllocation) {
  const Image image = support::scene(160, 96);
  Bytes frame = rawFrame(image, 32), jpeg(100000);
  CMmalJpegEncoder encoder;
  std::size_t before = 0;
  for (int i = 0; i < 20; ++i) {
    if (i == 1) before = support::interpose::allocationsOfLibrary();
    unsigned int size = 0;
    ASSERT_EQ(encoder.EncodeRGB32(frame.data(), static_cast<unsigned int>(frame.size()), 160, 96,
                                  jpeg.data(), static_cast<unsigned int>(jpeg.size()), size),
              1);
  }
  EXPECT_EQ(support::interpose::allocationsOfLibrary(), before);
}

// --------------------------------------------------------------------------------- bad input

struct BadInput {
  const char* name;
  std::function<int(CMmalJpegEncoder&, Bytes& frame, Bytes& jpeg, unsigned int& size)> call;
  std::string out;
  std::string err;
};

const std::string noInput =
    "CMmalJpegEncoder::Encode - invalid input buffer pointer or buffer size\n";
const std::string noOutput =
    "CMmalJpegEncoder::Encode - invalid output buffer pointer or buffer size\n";
const std::string noSetup = "CMmalJpegEncoder::Encode - initialization failed\n";
const std::string noFormat = "CMmalJpegEncoder::Initialize - failed to commit input port format\n";

const BadInput badInputs[] = {
    {"NullFrame",
     [](auto& e, Bytes&, Bytes& j, unsigned& s) {
       return e.EncodeYUYV(nullptr, 9, 64, 48, j.data(), 99, s);
     },
     noInput, ""},
    {"EmptyFrame",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeRGB32(f.data(), 0, 64, 48, j.data(), 99, s);
     },
     noInput, ""},
    {"NullJpeg",
     [](auto& e, Bytes& f, Bytes&, unsigned& s) {
       return e.EncodeYUYV(f.data(), 9, 64, 48, static_cast<unsigned char*>(nullptr), 99, s);
     },
     noOutput, ""},
    {"NoCapacity",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeRGB32(f.data(), 9, 64, 48, j.data(), 0, s);
     },
     noOutput, ""},
    {"NullArrayYuyv",
     [](auto& e, Bytes& f, Bytes&, unsigned& s) {
       return e.EncodeYUYV(f.data(), 9, 64, 48, static_cast<unsigned char**>(nullptr), s);
     },
     "CMmalJpegEncoder::EncodeYUYV - invalid output buffer pointer\n", ""},
    {"NullArrayRgb",
     [](auto& e, Bytes& f, Bytes&, unsigned& s) {
       return e.EncodeRGB32(f.data(), 9, 64, 48, static_cast<unsigned char**>(nullptr), s);
     },
     "CMmalJpegEncoder::EncodeRGB32 - invalid output buffer pointer\n", ""},
    {"EightBits",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeRGB(f.data(), 9, 8, 64, 48, j.data(), 99, s);
     },
     "CMmalJpegEncoder::EncodeRGB - invalid input image pixel depth 8\n", ""},
    {"NoWidth",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeYUYV(f.data(), 9, 0, 48, j.data(), 99, s);
     },
     noSetup, noFormat},
    {"NegativeHeight",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeYUYV(f.data(), 9, 64, -48, j.data(), 99, s);
     },
     noSetup, noFormat},
    {"MostNegativeWidth",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeRGB32(f.data(), 9, INT32_MIN, 48, j.data(), 99, s);
     },
     noSetup, noFormat},
    {"LargestWidth",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeYUYV(f.data(), 9, INT32_MAX, 48, j.data(), 99, s);
     },
     noSetup, noFormat},
    {"FrameTooLong",
     [](auto& e, Bytes& f, Bytes& j, unsigned& s) {
       return e.EncodeYUYV(f.data(), 64 * 48 * 2 + 1, 64, 48, j.data(), 99, s);
     },
     "CMmalJpegEncoder::Encode - frame of 6145 bytes does not fit input buffer of 6144\n", ""},
};

class BadInputTest : public testing::TestWithParam<BadInput> {};

TEST_P(BadInputTest, SaysSoAndTheNextCallWorks) {
  const Image image = support::scene(64, 48);
  Bytes frame(64 * 48 * 4), jpeg(50000, 0xA5);
  CMmalJpegEncoder encoder;
  // On a new object, and on one that has a setup.
  for (int round = 0; round < 2; ++round) {
    {
      support::Capture capture;
      unsigned int size = 77;
      EXPECT_EQ(GetParam().call(encoder, frame, jpeg, size), 0);
      EXPECT_EQ(size, 77u);
      EXPECT_EQ(jpeg, Bytes(50000, 0xA5));
      EXPECT_EQ(capture.out(), GetParam().out);
      EXPECT_EQ(capture.err(), GetParam().err);
    }
    const Encoded next = encode(encoder, image, 0);
    ASSERT_EQ(next.result, 1);
    EXPECT_GT(support::psnr(support::decodeJpegToRgb(next.jpeg).rgb, image.rgb), 30);
  }
}

INSTANTIATE_TEST_SUITE_P(Inputs, BadInputTest, testing::ValuesIn(badInputs),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(JpegEncoder, ShortFrameIsTakenAsFarAsItGoes) {
  const Image image = support::scene(64, 48);
  CMmalJpegEncoder encoder;
  encode(encoder, support::flat(64, 48, 10, 20, 30), 0);
  Bytes half = rawFrame(image, 0);
  half.resize(half.size() / 2);
  const Encoded ours = encode(encoder, half, 0, 64, 48);
  ASSERT_EQ(ours.result, 1);
  const Image seen = support::decodeJpegToRgb(ours.jpeg);
  EXPECT_GT(support::psnr(Bytes(seen.rgb.begin(), seen.rgb.begin() + 64 * 16 * 3),
                          Bytes(image.rgb.begin(), image.rgb.begin() + 64 * 16 * 3)),
            28);
}

/// The pixel format is that of the call that made the setup: a wider one at the same size does not
/// fit, and is refused.
TEST(JpegEncoder, AnotherFormatAtTheSameSizeKeepsTheSetup) {
  const Image image = support::scene(64, 48);
  CMmalJpegEncoder encoder;
  ASSERT_EQ(encode(encoder, image, 0).result, 1);
  {
    support::Capture capture;
    EXPECT_EQ(encode(encoder, image, 32).result, 0);
    EXPECT_NE(capture.out().find("does not fit"), std::string::npos);
  }
  EXPECT_EQ(encode(encoder, image, 0).result, 1);
}

}  // namespace
