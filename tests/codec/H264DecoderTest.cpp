#include <gtest/gtest.h>

#include <map>

#include "H264Feeding.h"

using codec::H264Decoder;
using support::Bytes;
using support::H264Made;
using support::H264Options;

namespace {

/// width, height, frames, B frames, slices, key interval, quantiser, interlaced, headers, profile
const std::map<std::string, H264Options> streams = {
    {"BFrames", {320, 240, 24, 3, 1, 9, 24}},
    {"OneBFrame", {320, 240, 10, 1, 1, 3, 24}},
    {"SlicesAndBFrames", {320, 240, 16, 2, 3, 30, 24}},
    {"Interlaced", {320, 256, 10, 0, 1, 30, 24, true}},
    {"BaselineSlices", {320, 240, 10, 0, 3, 5, 24, false, true, "baseline"}},
    {"Cropped", {322, 178, 10, 0, 1, 1, 24}},
    {"Tiny", {16, 16, 60, 0, 1, 30, 45}},
};

const H264Made& madeOf(const std::string& name) {
  static std::map<std::string, H264Made> made;
  H264Made& one = made[name];
  if (one.stream.empty()) one = support::encodeH264(streams.at(name));
  return one;
}

void expectPictures(const Shown& shown, const std::vector<support::Yuv>& expected) {
  EXPECT_EQ(shown.pictures.size(), expected.size());
  EXPECT_EQ(firstDifference(shown.pictures, expected), expected.size());
  EXPECT_EQ(std::count(shown.damaged.begin(), shown.damaged.end(), true), 0);
}

class H264StreamTest : public testing::TestWithParam<std::pair<const std::string, H264Options>> {
 protected:
  const H264Made& made_ = madeOf(GetParam().first);
  const std::vector<support::Yuv> expected_ = support::decodeH264(made_.stream).pictures;
};

TEST_P(H264StreamTest, AnyCutGivesTheSamePictures) {
  ASSERT_EQ(expected_.size(), static_cast<std::size_t>(GetParam().second.frames));
  std::vector<std::string> ways = {"unit", "NAL", "whole", "1", "17", "1000", "4096"};
  for (const char* bytes : {"1", "2", "3", "4", "5", "6"})
    ways.push_back(std::string("unit-") + bytes);
  for (int seed = 0; seed < 12; ++seed) ways.push_back("random" + std::to_string(seed));
  for (const std::string& how : ways)
    for (const bool unitEnds : {true, false}) {
      SCOPED_TRACE(how + (unitEnds ? ", units marked" : ""));
      OpenDecoder decoder;
      expectPictures(feed(decoder, made_.stream, cut(made_, how), unitEnds), expected_);
    }
}

TEST_P(H264StreamTest, UnitsWaitForNothingButTheStreamsOrder) {
  OpenDecoder decoder;
  const int bFrames = GetParam().second.bFrames;
  const std::size_t reordering = static_cast<std::size_t>(std::min(bFrames, 2));
  Shown shown;
  for (std::size_t i = 0; i + 1 < made_.units.size(); ++i) {
    decoder.feed(&made_.stream[made_.units[i]], made_.units[i + 1] - made_.units[i],
                 static_cast<std::int64_t>(i), i % 2 == 1, true);
    shown.take(decoder);
    EXPECT_GE(shown.pictures.size() + reordering, i + 1);
  }
  decoder.flush();
  shown.take(decoder);
  // A time stamp and a flag stay with their picture, which need not come out in their order.
  std::vector<std::int64_t> sorted = shown.pts;
  if (bFrames != 0) std::sort(sorted.begin(), sorted.end());
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    EXPECT_EQ(sorted[i], static_cast<std::int64_t>(i));
    EXPECT_EQ(shown.decodeOnly[i], shown.pts[i] % 2 == 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Streams, H264StreamTest, testing::ValuesIn(streams),
                         [](const auto& stream) { return stream.param.first; });

TEST(H264Decoder, AnEndOfSequenceBringsEverythingOut) {
  const H264Made& film = madeOf("BFrames");
  const auto expected = support::decodeH264(film.stream).pictures;
  const Bytes end = {0, 0, 0, 1, 10};
  for (const char* how : {"unit", "17", "whole"}) {
    OpenDecoder decoder;
    for (int round = 0; round < 2; ++round) {
      Shown shown = feed(decoder, film.stream, cut(film, how), true, false);
      EXPECT_LT(shown.pictures.size(), expected.size());
      decoder.feed(end.data(), end.size(), 0, false, true);
      shown.take(decoder);
      expectPictures(shown, expected);
    }
  }
}

TEST(H264Decoder, GoesOnAfterAFlushAndWithAnotherSize) {
  const H264Made &film = madeOf("BFrames"), &tiny = madeOf("Tiny");
  const auto first = support::decodeH264(film.stream).pictures;
  const auto second = support::decodeH264(tiny.stream).pictures;
  OpenDecoder decoder;
  for (int round = 0; round < 2; ++round) {
    expectPictures(feed(decoder, film.stream, film.units), first);
    expectPictures(feed(decoder, tiny.stream, tiny.units), second);
  }
  // Without a flush in between, too.
  for (const char* how : {"1000", "whole"}) {
    feed(decoder, film.stream, cut(film, how), true, false);
    feed(decoder, tiny.stream, cut(tiny, how), true, false);
    const Shown last = feed(decoder, film.stream, cut(film, how));
    ASSERT_GE(last.pictures.size(), first.size());
    EXPECT_TRUE(same(last.pictures.back(), first.back()));
  }
}

TEST(H264Decoder, TakesParameterSetsBeforehandInBothForms) {
  const H264Made& made = madeOf("Interlaced");
  const auto expected = support::decodeH264(made.stream).pictures;
  Bytes annexB, rest, record = {1, 100, 0, 40, 0xff, 0xe1};
  const std::vector<std::size_t> nals = support::nalStarts(made.stream);
  for (std::size_t i = 0; i + 1 < nals.size(); ++i) {
    const Bytes nal(&made.stream[nals[i]], made.stream.data() + nals[i + 1]);
    const std::ptrdiff_t header = nal[2] == 1 ? 3 : 4;
    const unsigned type = nal[static_cast<std::size_t>(header)] & 31u;
    const bool isSet = type == 7 || type == 8;
    (isSet ? annexB : rest).insert((isSet ? annexB : rest).end(), nal.begin(), nal.end());
    if (!isSet) continue;
    if (type == 8) record.push_back(1);
    record.insert(record.end(), {0, static_cast<std::uint8_t>(nal.end() - nal.begin() - header)});
    record.insert(record.end(), nal.begin() + header, nal.end());
  }
  for (const Bytes& sets : {annexB, record}) {
    OpenDecoder decoder(sets);
    for (int round = 0; round < 2; ++round)
      expectPictures(feed(decoder, rest, {0, rest.size()}), expected);
  }
  for (const Bytes& garbage : {Bytes{1}, Bytes(40, 1), Bytes{1, 2, 3, 4, 5, 0xff, 0xff, 0xff},
                               Bytes(3, 0), Bytes{0, 0, 1}, Bytes{0, 0, 1, 0x67}}) {
    OpenDecoder decoder(garbage);
    expectPictures(feed(decoder, made.stream, made.units), expected);
  }
}

TEST(H264Decoder, ATimeStampBelongsToTheUnitThatStartsInItsBytes) {
  const H264Made& made = madeOf("BaselineSlices");
  OpenDecoder decoder;
  // Two units a piece: the second has none. Then a unit in three pieces: the first one's.
  std::vector<std::size_t> cuts = {made.units[0],     made.units[2],      made.units[3],
                                   made.units[3] + 9, made.units[3] + 20, made.units[4]};
  const Shown shown = feed(decoder, made.stream, cuts);
  EXPECT_EQ(shown.pts, (std::vector<std::int64_t>{0, H264Decoder::noPts, 1, 2}));
}

TEST(H264Decoder, SplitUnitsWaitForTheirLastPiece) {
  const H264Made& made = madeOf("BaselineSlices");
  const auto expected = support::decodeH264(made.stream).pictures;
  OpenDecoder decoder;
  Shown shown;
  for (std::size_t i = 0; i + 1 < made.units.size(); ++i) {
    const std::size_t middle = (made.units[i] + made.units[i + 1]) / 2;
    decoder.feed(&made.stream[made.units[i]], middle - made.units[i], 7, false, false);
    shown.take(decoder);
    EXPECT_EQ(shown.pictures.size(), i);
    decoder.feed(&made.stream[middle], made.units[i + 1] - middle, 7, false, true);
    shown.take(decoder);
    EXPECT_EQ(shown.pictures.size(), i + 1);
  }
  expectPictures(shown, expected);
}

TEST(H264Decoder, DoesNothingWhenItIsNotOpen) {
  const H264Made& made = madeOf("Tiny");
  H264Decoder decoder;
  EXPECT_TRUE(feed(decoder, made.stream, made.units).pictures.empty());
  ASSERT_TRUE(decoder.open(nullptr, 0));
  decoder.feed(nullptr, 10, 0, false, true);
  decoder.feed(made.stream.data(), 0, 0, false, true);
  EXPECT_EQ(feed(decoder, made.stream, made.units).pictures.size(), 60u);
}

}  // namespace
