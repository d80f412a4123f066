#include <gtest/gtest.h>

#include <map>

#include "H264Feeding.h"

using codec::H264Decoder;
using support::Bytes;
using support::H264Made;
using support::H264Options;

namespace {

const std::map<std::string, H264Options>& streams() {
  static const std::map<std::string, H264Options> all = [] {
    std::map<std::string, H264Options> made;
    const auto add = [&](const char* name, auto change) { change(made[name]); };
    add("BFrames", [](H264Options& o) { o.bFrames = 3, o.frames = 24, o.keyInterval = 9; });
    add("Slices", [](H264Options& o) { o.slices = 4, o.keyInterval = 4; });
    add("SlicesAndBFrames", [](H264Options& o) { o.slices = 3, o.bFrames = 2, o.frames = 16; });
    add("Interlaced", [](H264Options& o) { o.interlaced = true, o.height = 256; });
    add("Baseline", [](H264Options& o) { o.profile = "baseline", o.keyInterval = 5; });
    add("BaselineSlices", [](H264Options& o) { o.profile = "baseline", o.slices = 3; });
    add("Cropped", [](H264Options& o) { o.width = 322, o.height = 178; });
    add("Tiny",
        [](H264Options& o) { o.width = 16, o.height = 16, o.quantiser = 45, o.frames = 60; });
    add("AllKeyFrames", [](H264Options& o) { o.keyInterval = 1, o.quantiser = 40; });
    add("OneBFrame", [](H264Options& o) { o.bFrames = 1, o.keyInterval = 3; });
    return made;
  }();
  return all;
}

const H264Made& madeOf(const std::string& name) {
  static std::map<std::string, H264Made> made;
  H264Made& one = made[name];
  if (one.stream.empty()) one = support::encodeH264(streams().at(name));
  return one;
}

std::vector<std::string> names() {
  std::vector<std::string> all;
  for (const auto& entry : streams()) all.push_back(entry.first);
  return all;
}

class H264StreamTest : public testing::TestWithParam<std::string> {
 protected:
  const H264Made& made_ = madeOf(GetParam());
  const std::vector<support::Yuv> expected_ = support::decodeH264(made_.stream).pictures;
};

TEST_P(H264StreamTest, AnyCutGivesTheSamePictures) {
  ASSERT_EQ(expected_.size(), static_cast<std::size_t>(streams().at(GetParam()).frames));
  std::vector<std::string> ways = {"unit", "NAL", "whole", "1", "17", "1000", "4096"};
  for (const char* bytes : {"1", "2", "3", "4", "5", "6"})
    ways.push_back(std::string("unit-") + bytes);
  for (int seed = 0; seed < 12; ++seed) ways.push_back("random" + std::to_string(seed));
  for (const std::string& how : ways)
    for (const bool unitEnds : {true, false}) {
      H264Decoder decoder;
      ASSERT_TRUE(decoder.open(nullptr, 0)) << decoder.error();
      const Shown shown = feed(decoder, made_.stream, cut(made_, how), unitEnds);
      EXPECT_EQ(shown.pictures.size(), expected_.size()) << how << unitEnds;
      EXPECT_EQ(firstDifference(shown.pictures, expected_), expected_.size()) << how << unitEnds;
      EXPECT_EQ(std::count(shown.damaged.begin(), shown.damaged.end(), true), 0) << how << unitEnds;
    }
}

TEST_P(H264StreamTest, UnitsWaitForNothingButTheStreamsOrder) {
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  const int bFrames = streams().at(GetParam()).bFrames;
  const std::size_t reordering = bFrames == 0 ? 0 : bFrames == 1 ? 1 : 2;
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
  std::sort(sorted.begin(), sorted.end());
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    EXPECT_EQ(sorted[i], static_cast<std::int64_t>(i));
    EXPECT_EQ(shown.decodeOnly[i], shown.pts[i] % 2 == 1);
    if (bFrames == 0) {
      EXPECT_EQ(shown.pts[i], static_cast<std::int64_t>(i));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Streams, H264StreamTest, testing::ValuesIn(names()),
                         [](const auto& stream) { return stream.param; });

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(H264Decoder, AnEndOfSequenceBringsEverythingOut) {
  const H264Made& film = madeOf("BFrames");
  const auto expected = support::decodeH264(film.stream).pictures;
  const Bytes end = {0, 0, 0, 1, 10};
  for (const char* how : {"unit", "17", "whole"}) {
    H264Decoder decoder;
    ASSERT_TRUE(decoder.open(nullptr, 0));
    for (int round = 0; round < 2; ++round) {
      Shown shown = feed(decoder, film.stream, cut(film, how), true, false);
      EXPECT_LT(shown.pictures.size(), expected.size());
      const Shown rest = feed(decoder, end, {0, end.size()}, true, false);
      shown.pictures.insert(shown.pictures.end(), rest.pictures.begin(), rest.pictures.end());
      ASSERT_EQ(shown.pictures.size(), expected.size()) << how;
      EXPECT_EQ(firstDifference(shown.pictures, expected), expected.size()) << how;
    }
  }
}

TEST(H264Decoder, GoesOnAfterAFlushAndWithAnotherSize) {
  const H264Made &film = madeOf("BFrames"), &tiny = madeOf("Tiny");
  const auto first = support::decodeH264(film.stream).pictures;
  const auto second = support::decodeH264(tiny.stream).pictures;
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(firstDifference(feed(decoder, film.stream, film.units).pictures, first),
              first.size());
    EXPECT_EQ(firstDifference(feed(decoder, tiny.stream, tiny.units).pictures, second),
              second.size());
  }
  // Without a flush in between, too.
  const Bytes both = joined({film.stream, tiny.stream, film.stream});
  for (const std::size_t piece : {std::size_t{700}, both.size()}) {
    std::vector<std::size_t> cuts;
    for (std::size_t at = 0; at < both.size(); at += piece) cuts.push_back(at);
    cuts.push_back(both.size());
    const Shown shown = feed(decoder, both, cuts);
    EXPECT_EQ(shown.pictures.size(), 2 * first.size() + second.size());
    EXPECT_EQ(shown.pictures.back().width, first.back().width);
    EXPECT_TRUE(same(shown.pictures.back(), first.back()));
  }
}

TEST(H264Decoder, TakesParameterSetsBeforehandInBothForms) {
  H264Options options;
  options.frames = 5;
  const H264Made made = support::encodeH264(options);
  const auto expected = support::decodeH264(made.stream).pictures;
  Bytes annexB, rest, record = {1, 100, 0, 40, 0xff, 0xe1};
  const std::vector<std::size_t> nals = support::nalStarts(made.stream);
  for (std::size_t i = 0; i + 1 < nals.size(); ++i) {
    const Bytes nal(made.stream.begin() + static_cast<std::ptrdiff_t>(nals[i]),
                    made.stream.begin() + static_cast<std::ptrdiff_t>(nals[i + 1]));
    const std::size_t header = nal[2] == 1 ? 3 : 4;
    const unsigned type = nal[header] & 31u;
    Bytes& to = type == 7 || type == 8 ? annexB : rest;
    to.insert(to.end(), nal.begin(), nal.end());
    if (type != 7 && type != 8) continue;
    if (type == 8) record.push_back(1);
    record.push_back(0);
    record.push_back(static_cast<std::uint8_t>(nal.size() - header));
    record.insert(record.end(), nal.begin() + static_cast<std::ptrdiff_t>(header), nal.end());
  }
  const std::vector<Bytes> forms = {annexB, record};
  for (const Bytes& sets : forms) {
    H264Decoder decoder;
    ASSERT_TRUE(decoder.open(sets.data(), sets.size()));
    for (int round = 0; round < 2; ++round) {
      const Shown shown = feed(decoder, rest, {0, rest.size()});
      EXPECT_EQ(shown.pictures.size(), expected.size());
      EXPECT_EQ(firstDifference(shown.pictures, expected), expected.size());
    }
  }
  H264Decoder decoder;
  for (const Bytes& garbage : {Bytes{1}, Bytes(40, 1), Bytes{1, 2, 3, 4, 5, 0xff, 0xff, 0xff},
                               Bytes(3, 0), Bytes{0, 0, 1}, Bytes{0, 0, 1, 0x67}}) {
    ASSERT_TRUE(decoder.open(garbage.data(), garbage.size()));
    const Shown shown = feed(decoder, made.stream, made.units);
    EXPECT_EQ(firstDifference(shown.pictures, expected), expected.size());
  }
}

TEST(H264Decoder, ATimeStampBelongsToTheUnitThatStartsInItsBytes) {
  const H264Made& made = madeOf("Baseline");
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  // Two units a piece: the second has none. Then a unit in three pieces: the first one's.
  std::vector<std::size_t> cuts = {made.units[0],     made.units[2],      made.units[3],
                                   made.units[3] + 9, made.units[3] + 20, made.units[4]};
  const Shown shown = feed(decoder, made.stream, cuts);
  EXPECT_EQ(shown.pts, (std::vector<std::int64_t>{0, H264Decoder::noPts, 1, 2}));
}

TEST(H264Decoder, SplitUnitsWaitForTheirLastPiece) {
  const H264Made& made = madeOf("Slices");
  const auto expected = support::decodeH264(made.stream).pictures;
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
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
  EXPECT_EQ(firstDifference(shown.pictures, expected), expected.size());
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
