#include <fstream>
#include <iomanip>

#include "support/Calls.h"
#include "support/FaultTest.h"

namespace {

using namespace support;
using BothJpeg = Both<JpegClass>;

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
    return size = capacity, 1;
  }
  int EncodeRGB32(unsigned char*, unsigned, int width, int height, unsigned char*,
                  unsigned capacity, unsigned& size) override {
    return size = capacity + static_cast<unsigned>(100 * width + height), 1;
  }
};

TEST(JpegSlots, AllocatingOverloadsGoThroughTheVirtualOnes) {
  Derived<CMmalJpegEncoder> mmal;
  Derived<COmxJpegEncoder> omx;
  for (IJPEGEncoder* const encoder : std::initializer_list<IJPEGEncoder*>{&mmal, &omx})
    for (const bool yuyvFrame : {true, false}) {
      unsigned char frame = 0, *array = nullptr;
      unsigned size = 0;
      EXPECT_EQ(yuyvFrame ? encoder->EncodeYUYV(&frame, 1, 6, 5, &array, size)
                          : encoder->EncodeRGB32(&frame, 1, -6, -5, &array, size),
                1);
      EXPECT_EQ(size, yuyvFrame ? 60u : 120u + 605u);
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

/// A row of the file beside: what a call gets, and the line with which each class refuses it, if it
/// does.
struct Arguments {
  std::string call;
  unsigned frame = 0;  ///< its bytes; 1: a null frame
  int width = 0, height = 0;
  unsigned jpeg = 0;  ///< its capacity; 1: a null jpeg, or array
  std::string mmal, omx;

  bool array() const { return call.find("Array") != std::string::npos; }
  int pass(const JpegClass& kind, IJPEGEncoder& encoder, Bytes& from, Bytes& to,
           unsigned char*& array, unsigned& size) const {
    unsigned char* const raw = frame == 1 ? nullptr : from.data();
    unsigned char* const memory = jpeg == 1 ? nullptr : to.data();
    unsigned char** const made = jpeg == 1 ? nullptr : &array;
    if (call == "Yuyv") return encoder.EncodeYUYV(raw, frame, width, height, memory, jpeg, size);
    if (call == "YuyvArray") return encoder.EncodeYUYV(raw, frame, width, height, made, size);
    if (call == "Rgb32") return encoder.EncodeRGB32(raw, frame, width, height, memory, jpeg, size);
    if (call == "Rgb32Array") return encoder.EncodeRGB32(raw, frame, width, height, made, size);
    return kind.encodeRgb(encoder, from, 8, width, height, to, size);
  }
};
std::istream& operator>>(std::istream& in, Arguments& row) {
  return in >> row.call >> row.frame >> row.width >> row.height >> row.jpeg >>
         std::quoted(row.mmal) >> std::quoted(row.omx);
}

TEST_P(BothJpeg, WrongArgumentsAreToldAndTheNextCallWorks) {
  const JpegClass& kind = *GetParam();
  const Image image = scene(64, 48);
  std::ifstream file(TESSERA_JPEG_ARGUMENTS);
  int rows = 0;
  for (Arguments given; file >> given; ++rows) {
    const std::string& line = kind.mmal ? given.mmal : given.omx;
    if (line.empty()) continue;
    SCOPED_TRACE(given.call + " - " + line);
    const bool emptied = given.array() && given.jpeg != 1;
    const std::string prefix = std::string(kind.name) + "::";
    Bytes frame(64 * 48 * 4), jpeg(50000, poison);
    JpegEncoder encoder(kind);
    // On a new object, and on one that has a setup.
    for (int round = 0; round < 2; ++round) {
      unsigned size = 77;
      unsigned char* made = jpeg.data();
      expectAnswer<int>([&] { return given.pass(kind, *encoder, frame, jpeg, made, size); }, 0,
                        prefix + line + "\n",
                        line == "Encode - initialization failed"
                            ? prefix + "Initialize - failed to commit input port format\n"
                            : "");
      EXPECT_EQ(size, emptied ? 0u : 77u);
      EXPECT_EQ(made, emptied ? nullptr : jpeg.data());
      EXPECT_EQ(jpeg, Bytes(50000, poison));
      EXPECT_GT(quality(encoder.encode(image).jpeg, image), 30);
    }
  }
  EXPECT_EQ(rows, 17);
}

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
