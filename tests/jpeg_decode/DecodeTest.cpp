#include <tessera_platform/control.h>

#include "PoolFixture.h"
#include "support/FaultTest.h"
#include "support/JpegSurgery.h"

namespace {

using support::Bytes;
using support::Sampling;
using Decode = support::TimedFaultTest;

const Sampling samplings[] = {Sampling::Yuv420, Sampling::Yuv422, Sampling::Yuv444,
                              Sampling::Yuv440, Sampling::Yuv411, Sampling::Grey};
const std::pair<int, int> sizes[] = {{1280, 720}, {640, 480}, {321, 241}, {33, 17}, {100, 75},
                                     {16, 1},     {1, 16},    {2, 2},     {3, 3},   {1, 1}};

TEST_F(Decode, PicturesOfAnySamplingAndSizeAreWhatTurboJpegSees) {
  QuietPool pool;
  int t = 0;
  for (const Sampling sampling : samplings)
    for (const auto& [width, height] : sizes) {
      const Bytes jpeg = jpegOf(width, height, ++t, sampling);
      EXPECT_EQ(difference(decode(*pool, jpeg), jpeg), "")
          << width << "x" << height << ", sampling " << static_cast<int>(sampling);
    }
}

TEST_F(Decode, TakesWhatCamerasWrite) {
  const support::Image image = support::scene(320, 240, 5);
  const Bytes plain = support::encodeJpeg(image, Sampling::Yuv422, 85);
  const std::pair<const char*, Bytes> kinds[] = {
      {"restart markers", surgery::encodeWith("TJ_RESTART", "3B", image, Sampling::Yuv420)},
      {"two blocks of comments",
       surgery::insert(plain, 2, {0xFF, 0xFE, 0, 4, 'h', 'i', 0xFF, 0xFE, 0, 2})},
      {"bytes after the end", surgery::insert(plain, plain.size(), Bytes(5000, 0))}};
  QuietPool pool;
  for (const auto& [name, jpeg] : kinds)
    EXPECT_EQ(difference(decode(*pool, jpeg), jpeg), "") << name;
  ASSERT_FALSE(surgery::segments(kinds[0].second, 0xDD).empty()) << "no restart interval in it";
  // The tables of MJPEG go without saying; the oracle wants them.
  EXPECT_EQ(difference(decode(*pool, surgery::withoutTables(plain)), plain), "");
}

TEST_F(Decode, ProgressivePicturesTakeTheCallersSize) {
  QuietPool pool;
  const Bytes jpeg = support::encodeJpeg(support::scene(200, 120), Sampling::Yuv444, 85, true);
  const Decoded unknown = decode(*pool, jpeg);
  EXPECT_EQ(unknown.data, nullptr);
  EXPECT_EQ(unknown.width + unknown.height, 0);
  EXPECT_EQ(difference(decode(*pool, jpeg, 200, 120), jpeg), "");
  EXPECT_EQ(difference(decode(*pool, jpeg, 200, 120), jpeg), "") << "the same size again";
  // A wrong size, another one than the pool's or the pool's own, costs time only.
  EXPECT_EQ(difference(decode(*pool, jpeg, 640, 480), jpeg), "");
  EXPECT_EQ(difference(decode(*pool, jpegOf(64, 64)), jpegOf(64, 64)), "");
  EXPECT_EQ(difference(decode(*pool, jpeg, 64, 64), jpeg), "");
  EXPECT_EQ(difference(decode(*pool, jpegOf(64, 64)), jpegOf(64, 64)), "");
}

TEST_F(Decode, APictureMayTakeManyInputBuffers) {
  QuietPool pool;
  const std::size_t capacity = TesseraTestAccess::inputCapacity(*pool);
  const Bytes small = jpegOf(320, 240);
  // Exactly one buffer, one byte more, and many times round the ring.
  for (const std::size_t size : {capacity, capacity + 1, 5 * capacity + 17}) {
    const Bytes jpeg = surgery::insert(small, small.size(), Bytes(size - small.size(), 0));
    EXPECT_EQ(difference(decode(*pool, jpeg), small), "") << size;
  }
  const Bytes large = support::encodeJpeg(support::noise(1600, 1200, 1), Sampling::Yuv444, 97);
  ASSERT_GT(large.size(), 3 * capacity);
  EXPECT_EQ(difference(decode(*pool, large), large), "");
}

TEST_F(Decode, OneSizeKeepsOneBufferAndAnotherSizeTakesAnother) {
  QuietPool pool;
  const std::pair<std::pair<int, int>, OMX_U32> table[] = {
      {{1280, 720}, 1382400}, {{640, 480}, 460800}, {{1920, 1080}, 3133440}, {{100, 75}, 15360}};
  for (const auto& [size, capacity] : table) {
    const Decoded first = decode(*pool, jpegOf(size.first, size.second, 0));
    ASSERT_NE(first.data, nullptr);
    EXPECT_EQ(TesseraTestAccess::outputCapacity(*pool), capacity);
    const Bytes next = jpegOf(size.first, size.second, 1);
    const Decoded second = decode(*pool, next);
    EXPECT_EQ(second.data, first.data);
    EXPECT_EQ(difference(second, next), "");
    EXPECT_EQ(first.lines + second.lines, "") << "nothing is printed on the good path";
  }
  EXPECT_EQ(TesseraTestAccess::counts(*pool), (std::vector<int>{0, 0, 0}));
}

}  // namespace
