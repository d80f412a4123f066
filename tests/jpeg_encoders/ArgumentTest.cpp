#include <climits>
#include <string>

#include "JpegEncoders.h"

namespace {

TEST_P(BothJpeg, AllocatingOverloadsHandTheArrayOver) {
  JpegEncoder encoder(*GetParam());
  for (const Bits bits : {0, 32}) {
    const Image image = support::scene(160, 96);
    Bytes frame = encoder.raw(image, bits);
    unsigned char* array = nullptr;
    unsigned size = 0;
    // A negative size counts by its magnitude, for RGB.
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
}

template <typename Encoder>
void goThroughTheSlots() {
  struct Derived : Encoder {
    using Encoder::EncodeRGB32;
    using Encoder::EncodeYUYV;
    int EncodeYUYV(unsigned char*, unsigned, int, int, unsigned char* jpeg, unsigned capacity,
                   unsigned& size) override {
      *jpeg = 'Y';
      size = capacity;
      return 1;
    }
    int EncodeRGB32(unsigned char*, unsigned, int width, int height, unsigned char* jpeg,
                    unsigned capacity, unsigned& size) override {
      *jpeg = 'R';
      size = capacity + static_cast<unsigned>(width * height);
      return 1;
    }
  } derived;
  unsigned char frame = 0, *array = nullptr;
  unsigned size = 0;
  EXPECT_EQ(derived.EncodeYUYV(&frame, 1, 6, 5, &array, size), 1);
  EXPECT_EQ(size, 60u);
  EXPECT_EQ(*array, 'Y');
  delete[] array;
  EXPECT_EQ(derived.EncodeRGB32(&frame, 1, -6, -5, &array, size), 1);
  EXPECT_EQ(size, 120u + 30u);
  EXPECT_EQ(*array, 'R');
  delete[] array;
}

TEST(JpegSlots, AllocatingOverloadsGoThroughTheVirtualOnes) {
  goThroughTheSlots<CMmalJpegEncoder>();
  goThroughTheSlots<COmxJpegEncoder>();
  EXPECT_EQ(ReleaseEncoderJPEG(nullptr), 0);
}

TEST_P(BothJpeg, CapacityTooSmallTellsTheSizeNeeded) {
  JpegEncoder encoder(*GetParam());
  const Bytes frame = encoder.raw(support::scene(160, 96), 0);
  const Bytes whole = encoder.encode(frame, 0, 160, 96).jpeg;
  Encoded small;
  support::expectAnswer<int>(
      [&] { return (small = encoder.encode(frame, 0, 160, 96, length(whole) - 1)).result; }, 0, "",
      "");
  EXPECT_EQ(small.size, length(whole));
  EXPECT_EQ(encoder.encode(frame, 0, 160, 96, length(whole)).jpeg, whole);
}

/// What a call gets: 99 bytes of `frame` and `jpeg` unless it says otherwise.
struct Arguments {
  const JpegClass* kind;
  const char* name;
  enum Call { Yuyv, YuyvArray, Rgb, Rgb32, Rgb32Array } call;
  unsigned frame;  ///< its bytes; 1: a null frame
  int width, height;
  unsigned jpeg;  ///< its capacity; 1: a null jpeg, or array
  std::string out, err;
};

int callWith(const Arguments& given, IJPEGEncoder& encoder, Bytes& frame, Bytes& jpeg,
             unsigned char*& array, unsigned& size) {
  unsigned char* const from = given.frame == 1 ? nullptr : frame.data();
  unsigned char* const to = given.jpeg == 1 ? nullptr : jpeg.data();
  unsigned char** const arrayTo = given.jpeg == 1 ? nullptr : &array;
  switch (given.call) {
    case Arguments::Yuyv:
      return encoder.EncodeYUYV(from, given.frame, given.width, given.height, to, given.jpeg, size);
    case Arguments::YuyvArray:
      return encoder.EncodeYUYV(from, given.frame, given.width, given.height, arrayTo, size);
    case Arguments::Rgb32:
      return encoder.EncodeRGB32(from, given.frame, given.width, given.height, to, given.jpeg,
                                 size);
    case Arguments::Rgb32Array:
      return encoder.EncodeRGB32(from, given.frame, given.width, given.height, arrayTo, size);
    case Arguments::Rgb:
      break;
  }
  return given.kind->encodeRgb(encoder, frame, 8, given.width, given.height, jpeg, size);
}

class WrongArguments : public support::FaultTest, public testing::WithParamInterface<Arguments> {};

TEST_P(WrongArguments, AreToldAndTheNextCallWorks) {
  const Arguments& given = GetParam();
  const bool array = given.call == Arguments::YuyvArray || given.call == Arguments::Rgb32Array;
  const bool emptied = array && given.jpeg != 1;
  const Image image = support::scene(64, 48);
  Bytes frame(64 * 48 * 4), jpeg(50000, 0xA5);
  JpegEncoder encoder(*given.kind);
  // On a new object, and on one that has a setup.
  for (int round = 0; round < 2; ++round) {
    unsigned size = 77;
    unsigned char* made = jpeg.data();
    support::expectAnswer<int>([&] { return callWith(given, *encoder, frame, jpeg, made, size); },
                               0, given.out, given.err);
    EXPECT_EQ(size, emptied ? 0u : 77u);
    EXPECT_EQ(made, emptied ? nullptr : jpeg.data());
    EXPECT_EQ(jpeg, Bytes(50000, 0xA5));
    EXPECT_GT(quality(encoder.encode(image).jpeg, image), 30);
  }
}

const std::string mmal = "CMmalJpegEncoder::", omx = "COmxJpegEncoder::";
const std::string noFrame = mmal + "Encode - invalid input buffer pointer or buffer size\n";
const std::string noJpeg = mmal + "Encode - invalid output buffer pointer or buffer size\n";
const std::string noSetup = mmal + "Encode - initialization failed\n";
const std::string noFormat = mmal + "Initialize - failed to commit input port format\n";
const std::string omxNoFrame = omx + "Encode - invalid input buffer size or buffer pointer\n";
const std::string omxNoJpeg = omx + "Encode - invalid output buffer or buffer size pointer\n";
const std::string wrongSize = "- invalid input image size ";
const std::string shortFrame = omx + "Encode - frame of 6143 bytes, the input buffer takes ";
using A = Arguments;
const JpegClass *const m = &mmalJpeg(), *const o = &omxJpeg();

const Arguments arguments[] = {
    {m, "MmalNullFrame", A::Yuyv, 1, 64, 48, 99, noFrame, ""},
    {m, "MmalEmptyFrame", A::Rgb32, 0, 64, 48, 99, noFrame, ""},
    {m, "MmalNullJpeg", A::Yuyv, 9, 64, 48, 1, noJpeg, ""},
    {m, "MmalNoCapacity", A::Rgb32, 9, 64, 48, 0, noJpeg, ""},
    {m, "MmalNullArray", A::YuyvArray, 9, 64, 48, 1,
     mmal + "EncodeYUYV - invalid output buffer pointer\n", ""},
    {m, "MmalNullRgbArray", A::Rgb32Array, 9, 64, 48, 1,
     mmal + "EncodeRGB32 - invalid output buffer pointer\n", ""},
    {m, "MmalEightBits", A::Rgb, 9, 64, 48, 99,
     mmal + "EncodeRGB - invalid input image pixel depth 8\n", ""},
    {m, "MmalNoWidth", A::Yuyv, 9, 0, 48, 99, noSetup, noFormat},
    {m, "MmalNegativeHeight", A::Yuyv, 9, 64, -48, 99, noSetup, noFormat},
    {m, "MmalMostNegativeWidth", A::Rgb32, 9, INT_MIN, 48, 99, noSetup, noFormat},
    {m, "MmalLargestWidth", A::Yuyv, 9, INT_MAX, 48, 99, noSetup, noFormat},
    {m, "MmalArrayOfNoSize", A::YuyvArray, 9, 0, 48, 99, noJpeg, ""},
    {m, "MmalFrameTooLong", A::Yuyv, 6145, 64, 48, 99,
     mmal + "Encode - frame of 6145 bytes does not fit input buffer of 6144\n", ""},
    {o, "OmxNullFrame", A::Yuyv, 1, 64, 48, 99, omxNoFrame, ""},
    {o, "OmxEmptyFrame", A::Rgb32, 0, 64, 48, 99, omxNoFrame, ""},
    {o, "OmxNullJpeg", A::Yuyv, 9, 64, 48, 1, omxNoJpeg, ""},
    {o, "OmxNoCapacity", A::Rgb32, 9, 64, 48, 0, omxNoJpeg, ""},
    {o, "OmxNullArray", A::YuyvArray, 9, 64, 48, 1,
     omx + "EncodeYUYV- invalid output buffer pointer\n", ""},
    {o, "OmxNullRgbArray", A::Rgb32Array, 9, 64, 48, 1,
     omx + "EncodeRGB32 - invalid output buffer pointer\n", ""},
    {o, "OmxEightBits", A::Rgb, 9, 64, 48, 99,
     omx + "EncodeRGB - invalid input image pixel depth 8\n", ""},
    {o, "OmxNoWidth", A::Yuyv, 9, 0, 48, 99, omx + "Encode" + wrongSize + "0x48\n", ""},
    {o, "OmxNegativeWidth", A::Yuyv, 9, -64, 48, 99, omx + "Encode" + wrongSize + "-64x48\n", ""},
    {o, "OmxFrameTooShort", A::Yuyv, 6143, 64, 48, 99, shortFrame + "6144\n", ""},
    {o, "OmxFrameTooShortForRgb", A::Rgb32, 6143, 64, 48, 99, shortFrame + "12288\n", ""},
    {o, "OmxLargestSize", A::Yuyv, 6143, INT_MAX, INT_MAX, 99, shortFrame + "4294967296\n", ""},
    {o, "OmxMostNegativeSize", A::Rgb32, 6143, INT_MIN, -1, 99, shortFrame + "4294967296\n", ""},
    {o, "OmxArrayOfNoHeight", A::YuyvArray, 9, 64, 0, 99, omx + "EncodeYUYV" + wrongSize + "64x0\n",
     ""},
    {o, "OmxArrayOfNegativeWidth", A::YuyvArray, 9, -64, 48, 99,
     omx + "EncodeYUYV" + wrongSize + "-64x48\n", ""},
    {o, "OmxRgbArrayOfNoWidth", A::Rgb32Array, 9, 0, 48, 99,
     omx + "EncodeRGB32 " + wrongSize + "0x48\n", ""},
    {o, "OmxRgbArrayTooLarge", A::Rgb32Array, 9, INT_MIN, INT_MIN, 99,
     omx + "EncodeRGB32 " + wrongSize + "-2147483648x-2147483648\n", ""},
};
INSTANTIATE_TEST_SUITE_P(Table, WrongArguments, testing::ValuesIn(arguments),
                         support::nameOf<Arguments>);

TEST(OmxJpeg, QualityOutsideItsRangeCountsAs75) {
  COmxJpegEncoder encoder;
  const std::pair<unsigned, unsigned> table[] = {{4, 75}, {5, 5}, {75, 75}, {100, 100}, {101, 75}};
  for (const auto& [asked, taken] : table) {
    support::control::startJournal();
    EXPECT_EQ(encoder.SetupOutputPort(64, 64, asked), 1);
    support::control::stopJournal();
    EXPECT_NE(support::calls().find("QFactor 341: " + std::to_string(taken) + ")"),
              std::string::npos)
        << support::calls();
  }
}

}  // namespace
