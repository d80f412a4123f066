#include <climits>
#include <string>

#include "JpegEncoders.h"

namespace {

using namespace support;

TEST_P(BothJpeg, AllocatingOverloadsHandTheArrayOver) {
  JpegEncoder encoder(*GetParam());
  for (const Bits bits : {0, 32}) {
    const Image image = scene(160, 96);
    Bytes frame = encoder.raw(image, bits);
    unsigned char* array = nullptr;
    unsigned size = 0;
    const auto call = [&](int width, int height, unsigned bytes) {
      return bits != 0 ? (*encoder).EncodeRGB32(frame.data(), bytes, -width, -height, &array, size)
                       : (*encoder).EncodeYUYV(frame.data(), bytes, width, height, &array, size);
    };
    ASSERT_EQ(call(160, 96, length(frame)), 1);
    EXPECT_EQ(Bytes(array, array + size), encoder.encode(image, bits).jpeg);
    delete[] array;
    // The raw picture's size is all that the array gets: too little for a JPEG of one pixel.
    array = frame.data();
    EXPECT_EQ(call(1, 1, bits != 0 ? 2048 : 1024), 0);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(size, 0u);
  }
  EXPECT_EQ(ReleaseEncoderJPEG(GetParam()->make()), 1) << "one that was never used";
  EXPECT_EQ(ReleaseEncoderJPEG(nullptr), 0);
}

/// Overrides what writes to the caller's memory, and so changes what hands out an array too.
template <typename Encoder>
struct Derived : Encoder {
  using Encoder::EncodeRGB32;
  using Encoder::EncodeYUYV;
  int EncodeYUYV(unsigned char*, unsigned, int, int, unsigned char*, unsigned capacity,
                 unsigned& size) override {
    size = capacity;
    return 1;
  }
  int EncodeRGB32(unsigned char*, unsigned, int width, int height, unsigned char*,
                  unsigned capacity, unsigned& size) override {
    size = capacity + static_cast<unsigned>(100 * width + height);
    return 1;
  }
};

TEST(JpegSlots, AllocatingOverloadsGoThroughTheVirtualOnes) {
  Derived<CMmalJpegEncoder> mmal;
  Derived<COmxJpegEncoder> omx;
  for (IJPEGEncoder* const encoder : std::initializer_list<IJPEGEncoder*>{&mmal, &omx}) {
    unsigned char frame = 0, *array = nullptr;
    unsigned size = 0;
    EXPECT_EQ(encoder->EncodeYUYV(&frame, 1, 6, 5, &array, size), 1);
    EXPECT_EQ(size, 60u);
    delete[] array;
    EXPECT_EQ(encoder->EncodeRGB32(&frame, 1, -6, -5, &array, size), 1);
    EXPECT_EQ(size, 120u + 605u);
    delete[] array;
  }
}

TEST_P(BothJpeg, CapacityTooSmallTellsTheSizeNeeded) {
  JpegEncoder encoder(*GetParam());
  const Bytes frame = encoder.raw(scene(160, 96), 0);
  const Bytes whole = encoder.encode(frame, 0, 160, 96).jpeg;
  Encoded small;
  expectAnswer<int>(
      [&] { return (small = encoder.encode(frame, 0, 160, 96, length(whole) - 1)).result; }, 0, "",
      "");
  EXPECT_EQ(small.size, length(whole));
  EXPECT_EQ(small.jpeg, Bytes(length(whole) - 1, poison)) << "copied in part";
  EXPECT_EQ(encoder.encode(frame, 0, 160, 96, length(whole)).jpeg, whole);
}

/// What a call gets, and the line with which a class refuses it: none where it does not.
struct Arguments {
  const char* name;
  enum Call { Yuyv, YuyvArray, Rgb, Rgb32, Rgb32Array } call;
  unsigned frame;  ///< its bytes; 1: a null frame
  int width, height;
  unsigned jpeg;  ///< its capacity; 1: a null jpeg, or array
  std::string mmal, omx;
};

using Case = std::tuple<const JpegClass*, Arguments>;
class WrongArguments : public FaultTest, public testing::WithParamInterface<Case> {
 protected:
  int call(IJPEGEncoder& encoder, Bytes& frame, Bytes& jpeg, unsigned char*& array,
           unsigned& size) const {
    const auto& [kind, given] = GetParam();
    unsigned char* const from = given.frame == 1 ? nullptr : frame.data();
    unsigned char* const to = given.jpeg == 1 ? nullptr : jpeg.data();
    unsigned char** const arrayTo = given.jpeg == 1 ? nullptr : &array;
    const int width = given.width, height = given.height;
    switch (given.call) {
      case Arguments::Yuyv:
        return encoder.EncodeYUYV(from, given.frame, width, height, to, given.jpeg, size);
      case Arguments::YuyvArray:
        return encoder.EncodeYUYV(from, given.frame, width, height, arrayTo, size);
      case Arguments::Rgb32:
        return encoder.EncodeRGB32(from, given.frame, width, height, to, given.jpeg, size);
      case Arguments::Rgb32Array:
        return encoder.EncodeRGB32(from, given.frame, width, height, arrayTo, size);
      case Arguments::Rgb:
        break;
    }
    return kind->encodeRgb(encoder, frame, 8, width, height, jpeg, size);
  }
};

const std::string noSetup = "Encode - initialization failed\n";

TEST_P(WrongArguments, AreToldAndTheNextCallWorks) {
  const auto& [kind, given] = GetParam();
  const std::string& line = kind->mmal ? given.mmal : given.omx;
  const bool array = given.call == Arguments::YuyvArray || given.call == Arguments::Rgb32Array;
  const bool emptied = array && given.jpeg != 1;
  const std::string prefix = std::string(kind->name) + "::";
  const Image image = scene(64, 48);
  Bytes frame(64 * 48 * 4), jpeg(50000, poison);
  JpegEncoder encoder(*kind);
  // On a new object, and on one that has a setup.
  for (int round = 0; round < 2; ++round) {
    unsigned size = 77;
    unsigned char* made = jpeg.data();
    expectAnswer<int>(
        [&] { return call(*encoder, frame, jpeg, made, size); }, 0, prefix + line,
        line == noSetup ? prefix + "Initialize - failed to commit input port format\n" : "");
    EXPECT_EQ(size, emptied ? 0u : 77u);
    EXPECT_EQ(made, emptied ? nullptr : jpeg.data());
    EXPECT_EQ(jpeg, Bytes(50000, poison));
    EXPECT_GT(quality(encoder.encode(image).jpeg, image), 30);
  }
}

const std::string noFrame = "Encode - invalid input buffer pointer or buffer size\n",
                  noJpeg = "Encode - invalid output buffer pointer or buffer size\n",
                  omxNoFrame = "Encode - invalid input buffer size or buffer pointer\n",
                  omxNoJpeg = "Encode - invalid output buffer or buffer size pointer\n",
                  noArray = "- invalid output buffer pointer\n",
                  wrongSize = "- invalid input image size ",
                  eightBits = "EncodeRGB - invalid input image pixel depth 8\n",
                  shortFrame = "Encode - frame of 6143 bytes, the input buffer takes ";
using A = Arguments;
const Arguments arguments[] = {
    {"NullFrame", A::Yuyv, 1, 64, 48, 99, noFrame, omxNoFrame},
    {"EmptyFrame", A::Rgb32, 0, 64, 48, 99, noFrame, omxNoFrame},
    {"NullJpeg", A::Yuyv, 9, 64, 48, 1, noJpeg, omxNoJpeg},
    {"NoCapacity", A::Rgb32, 9, 64, 48, 0, noJpeg, omxNoJpeg},
    {"NullArray", A::YuyvArray, 9, 64, 48, 1, "EncodeYUYV " + noArray, "EncodeYUYV" + noArray},
    {"NullRgbArray", A::Rgb32Array, 9, 64, 48, 1, "EncodeRGB32 " + noArray,
     "EncodeRGB32 " + noArray},
    {"EightBits", A::Rgb, 9, 64, 48, 99, eightBits, eightBits},
    {"FrameTooShort", A::Yuyv, 6143, 64, 48, 99, "", shortFrame + "6144\n"},
    {"FrameTooShortForRgb", A::Rgb32, 6143, 64, 48, 99, "", shortFrame + "12288\n"},
    {"NoWidth", A::Yuyv, 9, 0, 48, 99, noSetup, "Encode" + wrongSize + "0x48\n"},
    {"NegativeHeight", A::Yuyv, 9, 64, -48, 99, noSetup, "Encode" + wrongSize + "64x-48\n"},
    {"MostNegativeSize", A::Rgb32, 6143, INT_MIN, -1, 99, noSetup, shortFrame + "4294967296\n"},
    {"LargestSize", A::Yuyv, 6143, INT_MAX, INT_MAX, 99, noSetup, shortFrame + "4294967296\n"},
    {"ArrayOfNoSize", A::YuyvArray, 9, 0, 48, 99, noJpeg, "EncodeYUYV" + wrongSize + "0x48\n"},
    {"ArrayOfNegativeWidth", A::YuyvArray, 9, -64, 48, 99, "",
     "EncodeYUYV" + wrongSize + "-64x48\n"},
    {"RgbArrayOfNoWidth", A::Rgb32Array, 9, 0, 48, 99, noJpeg,
     "EncodeRGB32 " + wrongSize + "0x48\n"},
    {"RgbArrayTooLarge", A::Rgb32Array, 9, INT_MIN, INT_MIN, 99, "",
     "EncodeRGB32 " + wrongSize + "-2147483648x-2147483648\n"},
};
std::vector<Case> casesOf(const JpegClass& kind) {
  std::vector<Case> cases;
  for (const Arguments& each : arguments)
    if (!(kind.mmal ? each.mmal : each.omx).empty()) cases.emplace_back(&kind, each);
  return cases;
}
INSTANTIATE_TEST_SUITE_P(Mmal, WrongArguments, testing::ValuesIn(casesOf(mmalJpeg())), NameOf());
INSTANTIATE_TEST_SUITE_P(Omx, WrongArguments, testing::ValuesIn(casesOf(omxJpeg())), NameOf());

TEST(OmxJpeg, QualityOutsideItsRangeCountsAs75) {
  COmxJpegEncoder encoder;
  const std::pair<unsigned, unsigned> table[] = {{4, 75}, {5, 5}, {75, 75}, {100, 100}, {101, 75}};
  for (const auto& [asked, taken] : table) {
    control::startJournal();
    EXPECT_EQ(encoder.SetupOutputPort(64, 64, asked), 1);
    control::stopJournal();
    EXPECT_NE(calls().find("QFactor 341: " + std::to_string(taken) + ")"), std::string::npos)
        << calls();
  }
}

}  // namespace
