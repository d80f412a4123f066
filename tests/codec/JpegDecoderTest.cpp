// What the decoder pool's tests cannot see of the codec below it: where it writes, and pictures
// that hardly any camera takes.

#include <gtest/gtest.h>

#include "codec/cpu/JpegDecoder.h"
#include "support/GuardedMemory.h"
#include "support/JpegSurgery.h"

using codec::JpegDecoder;
using support::Bytes;
using support::Sampling;
using support::Yuv;

namespace {

constexpr std::uint8_t frameCode = 0xc0, scanCode = 0xda, exifCode = 0xe1;

/// Decodes into the padded layout with unreadable memory right before or behind it, which holds
/// `former` everywhere. Empty where the picture does not come out whole.
Yuv decode(const Bytes& jpeg, std::uint8_t former = 0) {
  JpegDecoder decoder;
  if (!decoder.open(jpeg.data(), jpeg.size())) return {};
  const unsigned stride = codec::roundUp(decoder.width(), 32);
  const unsigned rows = codec::roundUp(decoder.height(), 16);
  const std::size_t size = std::size_t{stride} * rows * 3 / 2;
  GuardedMemory memory(size);
  std::uint8_t* const block = former == 0 ? memory.atStart() : memory.atEnd(size);
  std::fill_n(block, size, former);
  if (decoder.decode(codec::planesOf(block, stride, rows)) != JpegDecoder::Result::Complete)
    return {};
  return support::unpadded(block, static_cast<int>(decoder.width()),
                           static_cast<int>(decoder.height()));
}

using Case = std::tuple<Sampling, bool, std::pair<int, int>>;
class JpegDecoderTest : public testing::TestWithParam<Case> {};

TEST_P(JpegDecoderTest, WritesAllOfThePictureAndNothingElse) {
  const auto [sampling, progressive, size] = GetParam();
  const Bytes jpeg =
      support::encodeJpeg(support::scene(size.first, size.second), sampling, 85, progressive);
  const Yuv first = decode(jpeg), second = decode(jpeg, 255);
  EXPECT_EQ(first.y, support::decodeJpeg(jpeg).y);
  EXPECT_TRUE(first.y == second.y && first.u == second.u && first.v == second.v);
}

INSTANTIATE_TEST_SUITE_P(
    SamplingsAndSizes, JpegDecoderTest,
    testing::Combine(testing::Values(Sampling::Yuv420, Sampling::Yuv422, Sampling::Yuv444,
                                     Sampling::Yuv440, Sampling::Yuv411, Sampling::Grey),
                     testing::Bool(),
                     testing::Values(std::pair(1, 1), std::pair(17, 3), std::pair(8, 33),
                                     std::pair(321, 241), std::pair(705, 480))));

TEST(JpegDecoder, RgbCodedBecomesYuv) {
  const support::Image image = support::bars(64, 32);
  Bytes jpeg = support::encodeJpeg(image, Sampling::Yuv444, 95);
  const support::JpegPicture stored = support::decodeJpeg(jpeg);
  // Without a JFIF segment, the first, the components' names say that they are R, G and B.
  jpeg[3] = exifCode;
  const std::size_t frame = surgery::segments(jpeg, frameCode).at(0);
  const std::size_t scan = surgery::segments(jpeg, scanCode).at(0);
  for (std::size_t i = 0; i < 3; ++i)
    jpeg[frame + 10 + 3 * i] = jpeg[scan + 5 + 2 * i] = static_cast<std::uint8_t>("RGB"[i]);
  support::Image read = image;
  for (std::size_t i = 0; i < stored.y.size(); ++i) {
    read.rgb[3 * i] = stored.y[i];
    read.rgb[3 * i + 1] = stored.u[i];
    read.rgb[3 * i + 2] = stored.v[i];
  }
  const Yuv seen = decode(jpeg), expected = support::toYuv(read);
  EXPECT_LE(support::maxDifference(seen.y, expected.y), 2);
  EXPECT_LE(support::maxDifference(seen.u, expected.u), 2);
  EXPECT_LE(support::maxDifference(seen.v, expected.v), 2);
}

/// The limits hold for scans that no marker announces: what stands behind them is not looked at.
TEST(JpegDecoder, HiddenScansAreBoundedInNumberAndInWork) {
  const Bytes grey = support::encodeJpeg(support::scene(64, 64), Sampling::Grey, 85);
  const support::Bytes luma = support::decodeJpeg(grey).y;
  JpegDecoder::Limits little;
  little.work = 64 * 64 * 30;
  const struct {
    JpegDecoder::Limits limits;
    int before;
    bool seen;
  } rows[] = {
      {{}, 50, true}, {{}, 150, false}, {{}, 3000, false}, {little, 15, true}, {little, 50, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.before);
    const Bytes jpeg = surgery::withHiddenScans(grey, row.before, 3000);
    JpegDecoder decoder(row.limits);
    ASSERT_TRUE(decoder.open(jpeg.data(), jpeg.size()));
    Bytes block(64 * 64 * 3 / 2);
    EXPECT_EQ(decoder.decode(codec::planesOf(block.data(), 64, 64)), JpegDecoder::Result::Damaged);
    // An empty scan makes up its first block.
    const Bytes seen(block.begin() + 8 * 64, block.begin() + 64 * 64);
    EXPECT_EQ(seen, row.seen ? Bytes(luma.begin() + 8 * 64, luma.end()) : Bytes(56 * 64, 128));
  }
}

TEST(JpegDecoder, AThumbnailsScansAreNotThePictures) {
  const Bytes jpeg = support::encodeJpeg(support::scene(320, 240), Sampling::Yuv420, 75, true);
  Bytes exif = {0xff, exifCode, 8002 >> 8, 8002 & 255};
  for (int i = 0; i < 2000; ++i) exif.insert(exif.end(), {0xff, scanCode, 0, 8});
  EXPECT_FALSE(decode(surgery::insert(jpeg, 2, exif)).y.empty());
}

}  // namespace
