// What the decoder pool's tests cannot see of the codec below it: where it writes, and pictures
// that hardly any camera takes.

#include <gtest/gtest.h>
#include <sched.h>

#include "codec/cpu/WorkCrew.h"
#include "support/GuardedDecode.h"
#include "support/JpegSurgery.h"

using codec::JpegDecoder;
using support::Bytes;
using support::Sampling;
using support::Yuv;

namespace {

constexpr std::uint8_t frameCode = 0xc0, scanCode = 0xda, restartCode = 0xdd, exifCode = 0xe1;

JpegDecoder::Limits withThreads(unsigned threads) {
  JpegDecoder::Limits limits;
  limits.threads = threads;
  return limits;
}

/// Empty where the picture does not come out whole.
Yuv decode(const Bytes& jpeg, std::uint8_t former = 0) {
  JpegDecoder decoder;
  const support::DecodedJpeg seen =
      support::decodeGuarded(decoder, jpeg.data(), jpeg.size(), former);
  return seen.result == JpegDecoder::Result::Complete ? seen.picture : Yuv();
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

/// The offsets of the restart markers behind a JPEG's headers.
std::vector<std::size_t> restartMarkers(const Bytes& jpeg) {
  std::vector<std::size_t> found;
  for (std::size_t at = surgery::segments(jpeg, scanCode).at(0) + 2; at + 1 < jpeg.size(); ++at)
    if (jpeg[at] == 0xff && (jpeg[at + 1] & 0xf8) == 0xd0) found.push_back(at);
  return found;
}

/// The picture, and what can befall the two intervals between three of its restart markers.
std::vector<Bytes> damaged(const Bytes& jpeg, const std::size_t* markers) {
  const auto part = [&](std::size_t from, std::size_t to) {
    return Bytes(jpeg.begin() + static_cast<long>(from), jpeg.begin() + static_cast<long>(to));
  };
  const auto with = [&](std::size_t from, std::size_t to, std::vector<Bytes> parts) {
    Bytes result = part(0, from);
    parts.push_back(part(to, jpeg.size()));
    for (const Bytes& bytes : parts) result.insert(result.end(), bytes.begin(), bytes.end());
    return result;
  };
  const auto flipped = [&](std::size_t at, int bits) {
    return with(at, at + 1, {{static_cast<std::uint8_t>(jpeg[at] ^ bits)}});
  };
  const std::size_t a = markers[0], b = markers[1], c = markers[2];
  return {jpeg,
          with(b, b + 2, {}),            // a marker is missing,
          with(b, b, {part(b, b + 2)}),  // doubled,
          flipped(b + 1, 5),             // has another number
          with(a, c, {part(b, c), part(a, b)}),
          with(a + 2, c, {part(b + 2, c), part(b, b + 2), part(a + 2, b)}),
          with(b + (c - b) / 2, jpeg.size(), {}),
          with(a + 2, b, {}),
          with(b + 2, c, {Bytes(c - b - 2, 0x5a)}),
          flipped((a + b) / 2, 0x40),
          flipped(c - 1, 1),
          with(c, c, {{0x00}}),
          with(b, b, {{0x12, 0xff, 0x00, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0}}),
          with(b, b, {{0xff, 0xff}}),                                   // fill bytes
          with(b, b, {{0xff, 0xd9}}),                                   // an end
          flipped(surgery::segments(jpeg, restartCode).at(0) + 5, 1)};  // another interval
}

class RestartTest : public testing::TestWithParam<std::tuple<Sampling, const char*>> {};

TEST_P(RestartTest, SeveralThreadsGiveWhatOneDoes) {
  const auto [sampling, interval] = GetParam();
  JpegDecoder one(withThreads(1)), several(withThreads(3));
  for (const auto& [width, height] : {std::pair(17, 3), {95, 250}, {320, 128}, {641, 97}}) {
    const Bytes jpeg =
        surgery::encodeWith("TJ_RESTART", interval, support::scene(width, height), sampling);
    const std::vector<std::size_t> markers = restartMarkers(jpeg);
    const std::size_t last = std::max<std::size_t>(markers.size(), 3) - 3;
    for (const std::size_t i : {std::size_t{0}, last / 2, last}) {
      int kind = 0;
      for (const Bytes& input :
           markers.size() < 3 ? std::vector<Bytes>{jpeg} : damaged(jpeg, &markers[i])) {
        SCOPED_TRACE(testing::Message()
                     << width << " x " << height << ", marker " << i << ", damage " << kind++);
        EXPECT_TRUE(support::decodeGuarded(one, input.data(), input.size()) ==
                    support::decodeGuarded(several, input.data(), input.size(), 255));
      }
    }
  }
}

TEST(JpegDecoder, ThreadsShareThePicturesThatTheyCan) {
  const struct {
    const char* interval;
    Sampling sampling;
    unsigned threads;
  } rows[] = {
      {"0", Sampling::Yuv420, 1},  {"1", Sampling::Yuv420, 3},  {"1B", Sampling::Yuv444, 3},
      {"7B", Sampling::Yuv420, 2}, {"8B", Sampling::Yuv420, 3}, {"9B", Sampling::Yuv420, 1},
      {"1", Sampling::Yuv411, 3},  {"5", Sampling::Grey, 3},    {"20", Sampling::Yuv440, 1}};
  JpegDecoder decoder(withThreads(3));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.interval);
    const Bytes jpeg =
        surgery::encodeWith("TJ_RESTART", row.interval, support::scene(320, 128), row.sampling);
    support::decodeGuarded(decoder, jpeg.data(), jpeg.size());
    EXPECT_EQ(decoder.threadsTaken(), row.threads);
  }
}

INSTANTIATE_TEST_SUITE_P(SamplingsAndIntervals, RestartTest,
                         testing::Combine(testing::Values(Sampling::Yuv420, Sampling::Yuv422,
                                                          Sampling::Yuv444, Sampling::Yuv440,
                                                          Sampling::Yuv411, Sampling::Grey),
                                          testing::Values("1B", "7B", "20B", "1", "3")));

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

TEST(WorkCrew, HelpersKeepOffTheCallersProcessor) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<unsigned> begun{0}, helperMayUse{0};
  codec::WorkCrew(2).run(2, [&](unsigned) {
    for (++begun; begun < 2;) sched_yield();  // neither thread gets both tasks
    if (std::this_thread::get_id() != caller) helperMayUse = codec::WorkCrew::processors();
  });
  EXPECT_EQ(helperMayUse, std::max(codec::WorkCrew::processors(), 2u) - 1);
}

}  // namespace
