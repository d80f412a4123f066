#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "codec/JpegDecoder.h"
#include "convert/GuardedMemory.h"
#include "support/JpegOracle.h"

using codec::JpegDecoder;
using support::Bytes;
using support::Sampling;
using support::Yuv;
using Result = codec::JpegDecoder::Result;

namespace {

namespace marker {
constexpr std::uint8_t frame = 0xc0, huffman = 0xc4, scan = 0xda, quantisation = 0xdb, jfif = 0xe0;
}

/// Where the marker segments in front of a JPEG's first scan start; the scan's last.
std::vector<std::size_t> segmentStarts(const Bytes& jpeg) {
  std::vector<std::size_t> starts;
  for (std::size_t at = 2; at + 4 < jpeg.size(); at += 2 + (jpeg[at + 2] << 8 | jpeg[at + 3])) {
    starts.push_back(at);
    if (jpeg[at + 1] == marker::scan) break;
  }
  return starts;
}

/// The JPEG without the segments of one kind.
Bytes withoutSegments(const Bytes& jpeg, std::uint8_t kind) {
  Bytes rest = jpeg;
  const std::vector<std::size_t> starts = segmentStarts(jpeg);
  for (std::size_t i = starts.size() - 1; i-- > 0;)
    if (jpeg[starts[i] + 1] == kind)
      rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(starts[i]),
                 rest.begin() + static_cast<std::ptrdiff_t>(starts[i + 1]));
  return rest;
}

struct Decoded {
  Result result = Result::Unusable;
  Yuv picture;
};

/// Decodes into the padded layout with unreadable memory right before or behind it.
Decoded decode(JpegDecoder& decoder, const Bytes& jpeg, std::uint8_t before = 0x55) {
  if (!decoder.open(jpeg.data(), jpeg.size())) return {};
  const unsigned stride = codec::roundUp(decoder.width(), 32);
  const unsigned rows = codec::roundUp(decoder.height(), 16);
  const std::size_t size = std::size_t{stride} * rows * 3 / 2;
  GuardedMemory memory(size);
  std::uint8_t* const block = before % 2 == 0 ? memory.atStart() : memory.atEnd(size);
  std::fill_n(block, size, before);
  Decoded decoded;
  decoded.result = decoder.decode(codec::planesOf(block, stride, rows));
  decoded.picture = support::unpadded(block, static_cast<int>(decoder.width()),
                                      static_cast<int>(decoder.height()));
  return decoded;
}

Decoded decode(const Bytes& jpeg, std::uint8_t before = 0x55) {
  JpegDecoder decoder;
  return decode(decoder, jpeg, before);
}

/// Average of the chroma under each 2 x 2 pixels, by the definition.
Bytes folded(const support::JpegPicture& picture, const Bytes& plane) {
  const bool wide = picture.sampling == Sampling::Yuv444 || picture.sampling == Sampling::Yuv440;
  const bool high = picture.sampling != Sampling::Yuv420 && picture.sampling != Sampling::Yuv440;
  const int across = picture.sampling == Sampling::Yuv411 ? 4 : wide ? 1 : 2;
  const int down = high ? 1 : 2;
  Bytes out;
  for (int y = 0; y < picture.height; y += 2)
    for (int x = 0; x < picture.width; x += 2) {
      double sum = 0;
      for (int i = 0; i < 4; ++i) {
        const int column = std::min(x + i % 2, picture.width - 1) / across;
        const int row = std::min(y + i / 2, picture.height - 1) / down;
        sum += plane.empty() ? 128
                             : plane[static_cast<std::size_t>(row) * picture.chromaWidth + column];
      }
      out.push_back(static_cast<std::uint8_t>(sum / 4 + 0.5));
    }
  return out;
}

using Case = std::tuple<Sampling, bool, std::pair<int, int>>;
class JpegDecoderTest : public testing::TestWithParam<Case> {};

TEST_P(JpegDecoderTest, GivesLumaExactlyAndChromaAveraged) {
  const auto [sampling, progressive, size] = GetParam();
  const Bytes jpeg =
      support::encodeJpeg(support::scene(size.first, size.second), sampling, 85, progressive);
  const support::JpegPicture expected = support::decodeJpeg(jpeg);
  ASSERT_TRUE(expected.ok) << expected.error;
  for (const std::uint8_t before : {0, 255}) {
    const Decoded decoded = decode(jpeg, before);
    ASSERT_EQ(decoded.result, Result::Complete);
    EXPECT_EQ(decoded.picture.y, expected.y);
    EXPECT_LE(support::maxDifference(decoded.picture.u, folded(expected, expected.u)), 2);
    EXPECT_LE(support::maxDifference(decoded.picture.v, folded(expected, expected.v)), 2);
  }
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
  Bytes jpeg = withoutSegments(support::encodeJpeg(image, Sampling::Yuv444, 95), marker::jfif);
  const support::JpegPicture stored = support::decodeJpeg(jpeg);
  // Without JFIF the components' names say that they are R, G and B.
  for (const std::size_t at : segmentStarts(jpeg))
    for (std::size_t i = 0; i < 3; ++i) {
      const auto name = static_cast<std::uint8_t>("RGB"[i]);
      if (jpeg[at + 1] == marker::frame) jpeg[at + 10 + 3 * i] = name;
      if (jpeg[at + 1] == marker::scan) jpeg[at + 5 + 2 * i] = name;
    }
  support::Image read = image;
  for (std::size_t i = 0; i < stored.y.size(); ++i) {
    read.rgb[3 * i] = stored.y[i];
    read.rgb[3 * i + 1] = stored.u[i];
    read.rgb[3 * i + 2] = stored.v[i];
  }
  const Decoded decoded = decode(jpeg);
  ASSERT_EQ(decoded.result, Result::Complete);
  const Yuv expected = support::toYuv(read);
  EXPECT_LE(support::maxDifference(decoded.picture.y, expected.y), 2);
  EXPECT_LE(support::maxDifference(decoded.picture.u, expected.u), 2);
  EXPECT_LE(support::maxDifference(decoded.picture.v, expected.v), 2);
}

Bytes withFrameByte(Bytes jpeg, std::size_t offset, std::uint8_t value) {
  for (const std::size_t at : segmentStarts(jpeg))
    if (jpeg[at + 1] == marker::frame) jpeg[at + offset] = value;
  return jpeg;
}

TEST(JpegDecoder, RefusesBeforeItAllocates) {
  const Bytes good = support::encodeJpeg(support::scene(64, 64), Sampling::Yuv420, 75);
  const Bytes progressive = support::encodeJpeg(support::scene(64, 64), Sampling::Yuv420, 75, true);
  Bytes manyScans = progressive;
  const std::size_t scan = segmentStarts(progressive).back();
  for (int i = 0; i < 500; ++i)
    manyScans.insert(manyScans.begin() + static_cast<std::ptrdiff_t>(scan),
                     progressive.begin() + static_cast<std::ptrdiff_t>(scan),
                     progressive.end() - 2);
  const std::map<std::string, Bytes> cases = {
      {"nothing", {}},
      {"no JPEG", Bytes(1000, 0x12)},
      {"start only", {0xff, 0xd8, 0xff}},
      {"62,000 x 65,000", withFrameByte(withFrameByte(good, 5, 0xfd), 7, 0xf2)},
      {"no height", withFrameByte(withFrameByte(good, 5, 0), 6, 0)},
      {"12 bit", withFrameByte(good, 4, 12)},
      {"lossless", withFrameByte(good, 1, 0xc3)},
      {"two components", withFrameByte(good, 9, 2)},
      {"four colours", withFrameByte(good, 9, 4)},
      {"hundreds of scans", manyScans},
  };
  JpegDecoder decoder;
  for (const auto& [name, jpeg] : cases) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(decoder.open(jpeg.data(), jpeg.size())) << name;
    EXPECT_FALSE(decoder.error().empty()) << name;
    EXPECT_EQ(decoder.width(), 0u) << name;
    EXPECT_EQ(decoder.decode({}), Result::Unusable) << name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << name;
  }
  EXPECT_EQ(decode(decoder, good).result, Result::Complete);
}

TEST(JpegDecoder, AThumbnailsScansAreNotThePictures) {
  Bytes jpeg = support::encodeJpeg(support::scene(320, 240), Sampling::Yuv420, 75, true);
  Bytes exif = {0xff, 0xe1, 8002 >> 8, 8002 & 255};
  for (int i = 0; i < 2000; ++i) exif.insert(exif.end(), {0xff, marker::scan, 0, 8});
  jpeg.insert(jpeg.begin() + 2, exif.begin(), exif.end());
  EXPECT_EQ(decode(jpeg).result, Result::Complete);
}

}  // namespace
