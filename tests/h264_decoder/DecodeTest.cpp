#include <algorithm>
#include <random>

#include "support/Calls.h"
#include "support/FaultTest.h"
#include "support/MadeStream.h"

namespace {

using support::Bytes;
using support::H264Made;
using support::H264Options;
using support::length;
using support::Yuv;

const Bytes endOfSequence{0, 0, 0, 1, 10};

struct Shown {
  Yuv yuv;
  unsigned long long timestamp = 0;
};

/// Feeds pieces of a stream from one thread while another drains, as an application does.
class Player {
 public:
  Player(int width, int height, const Bytes& extra = {}) : width_(width), height_(height) {
    EXPECT_EQ(CreateH264Decoder(&decoder_), 1);
    EXPECT_TRUE(decoder_->Create(width, height, length(extra), extra.data()));
  }
  ~Player() { EXPECT_EQ(FreeH264Decoder(decoder_), 1); }
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  IH264Decoder& decoder() { return *decoder_; }

  /// Ends with the expected number of pictures, when none comes any more, or, if asked to, with the
  /// picture of the last piece.
  /// @param cuts  where the pieces start, the stream's size last; piece i is stamped (i + 1) * 40
  std::vector<Shown> play(Bytes stream, std::vector<std::size_t> cuts, std::size_t expected,
                          int decodeOnly = -1, bool stopAtLast = false) {
    stream.insert(stream.end(), endOfSequence.begin(), endOfSequence.end());
    cuts.push_back(stream.size());
    support::ClientThread feeder([&] {
      for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
        const auto size = static_cast<unsigned int>(cuts[i + 1] - cuts[i]);
        const unsigned int flags = static_cast<int>(i) == decodeOnly ? 0xF1 : 0xF0;
        ASSERT_EQ(
            decoder_->ProcessInput(&stream[cuts[i]], size, width_, height_, flags, (i + 1) * 40),
            CodecOk)
            << "piece " << i;
      }
    });
    std::vector<Shown> pictures;
    const unsigned long long last = (cuts.size() - 2) * 40;  // of the piece before the end
    while (pictures.size() < expected &&
           (stopAtLast ? pictures.empty() || pictures.back().timestamp != last : true) &&
           take(pictures)) {
    }
    feeder.join();
    return pictures;
  }

  bool take(std::vector<Shown>& pictures) {
    support::Picture out{CodecNoBuffer, {}};  // after another Create
    while (out.status == CodecNoBuffer) out = support::takeArray(*decoder_);
    if (out.status != CodecOk) return false;
    EXPECT_EQ(static_cast<int>(out.width), width_);
    EXPECT_EQ(static_cast<int>(out.height), height_);
    EXPECT_EQ(static_cast<int>(out.size),
              support::round32(width_) * support::round16(height_) * 3 / 2);
    pictures.push_back({support::unpadded(out.data.data(), width_, height_), out.timestamp});
    return true;
  }

 private:
  int width_, height_;
  IH264Decoder* decoder_ = nullptr;
};

bool same(const Yuv& a, const Yuv& b) {
  return a.y == b.y && a.u == b.u && a.v == b.v;
}

std::vector<std::size_t> cutEvery(std::size_t step, std::size_t size) {
  std::vector<std::size_t> cuts;
  for (std::size_t at = 0; at < size; at += step) cuts.push_back(at);
  cuts.push_back(size);
  return cuts;
}

// Width, height, pictures, B-frames, slices, key frame interval, quantiser, interlaced.
const std::pair<const char*, H264Options> kinds[] = {
    {"plain", {96, 64, 12, 0, 1, 6}},
    {"B-frames", {96, 64, 14, 3, 1, 6}},
    {"slices", {96, 64, 7, 0, 4, 6}},
    {"cropped", {152, 100, 7, 2, 1, 6}},
    {"oddly cropped", {50, 34, 5, 0, 1, 6}},
    {"interlaced", {96, 96, 8, 2, 1, 6, 24, true}},
    {"longer than a buffer", {64, 48, 4, 0, 1, 6, 2}},
};
using Decoder = support::TimedFaultTest;

void expectPictures(const std::vector<Shown>& seen, const std::vector<Yuv>& expected) {
  ASSERT_EQ(seen.size(), expected.size());
  for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_TRUE(same(seen[i].yuv, expected[i])) << i;
}

/// Cuts it into access units, NAL units and pieces of each size.
void expectSameHoweverCut(const H264Made& made, int width, int height, std::size_t pictures,
                          std::initializer_list<std::size_t> steps) {
  const support::Capture quiet;  // a piece longer than a buffer has a line
  const std::vector<Yuv> expected = support::decodeH264(made.stream).pictures;
  ASSERT_EQ(expected.size(), pictures);
  std::vector<std::vector<std::size_t>> cuts{made.units, support::nalStarts(made.stream)};
  for (const std::size_t step : steps) cuts.push_back(cutEvery(step, made.stream.size()));
  for (const auto& places : cuts) {
    SCOPED_TRACE(testing::Message() << places.size() << " pieces, from " << places[1]);
    Player player(width, height);
    expectPictures(player.play(made.stream, places, pictures), expected);
  }
}

TEST_F(Decoder, GivesTheSamePicturesHoweverAStreamIsCut) {
  for (const auto& [kind, options] : kinds) {
    SCOPED_TRACE(kind);
    expectSameHoweverCut(support::encodeH264(options), options.width, options.height,
                         static_cast<std::size_t>(options.frames), {1, 17, 4096, 1 << 20});
  }
}

/// Fields are access units of their own, and a picture shows only when both have gone in.
TEST_F(Decoder, GivesTheSamePicturesHoweverAFieldStreamIsCut) {
  const std::tuple<const char*, int, std::size_t> rows[] = {
      {"itbtbtbitbtb", 1, 5},   {"ibtbtbtibtbt", 1, 5}, {"itbttbtbtb", 1, 4},
      {"itbfftbftbitbf", 1, 8}, {"itbtbftb", 2, 4},     {"iftbtb", 2, 3}};
  for (const auto& [letters, slices, count] : rows) {
    SCOPED_TRACE(letters);
    expectSameHoweverCut(made::pictures(letters, true, slices), made::side, made::side, count,
                         {17, 100, 500, 800, 900, 1000, 1100, 1600, 2500, 20000});
  }
}

void append(Bytes& to, const Bytes& from) {
  to.insert(to.end(), from.begin(), from.end());
}

/// The sequence's parameter set came once, at the start.
TEST_F(Decoder, DamageAfterManyParameterSetsDoesNotEndTheStream) {
  const support::Capture quiet;
  const H264Made made = made::pictures("iffff", false);
  const auto at = [&](std::size_t place) {
    return made.stream.begin() + static_cast<std::ptrdiff_t>(place);
  };
  Bytes stream(at(0), at(made.units[3]));
  for (unsigned i = 0; i < 400; ++i)
    append(stream, made::pictureSet(1 + i % 255, static_cast<int>(i / 255) - 3));
  // The last picture ends too early; then all of them again.
  stream.insert(stream.end(), at(made.units[3]), made.stream.end() - 700);
  const std::size_t damaged = stream.size();
  stream.insert(stream.end(), at(support::nalStarts(made.stream)[2]), made.stream.end());
  const std::vector<Yuv> expected = support::decodeH264(made.stream).pictures;
  ASSERT_EQ(expected.size(), 4u);
  Player player(made::side, made::side);
  auto seen = player.play(stream, {0, damaged, stream.size()}, 8);
  ASSERT_EQ(seen.size(), 8u);
  seen.erase(seen.begin(), seen.begin() + 4);
  expectPictures(seen, expected);
}

/// The component's lines on standard error for a stream of these bytes, fed many times.
std::string complaints(const Bytes& bytes) {
  Bytes stream = bytes;
  support::Capture capture;
  Player player(made::side, made::side);
  for (int i = 0; i < 20; ++i)
    player.decoder().ProcessInput(stream.data(), length(stream), made::side, made::side, 0, 0);
  return capture.err();
}

TEST_F(Decoder, SaysOnceThatAStreamIsBeyondItAndNothingElse) {
  const Bytes pictures = made::pictures("if", false).stream;
  const Bytes rest(pictures.begin() + static_cast<std::ptrdiff_t>(support::nalStarts(pictures)[1]),
                   pictures.end());
  const auto beyond =
      "vc.ril.video_decode cannot decode the stream: its pictures are not 8-bit "
      "4:2:0\n";
  const std::pair<made::Sequence, const char*> rows[] = {
      {{false, 122, 2}, beyond},
      {{false, 244, 3}, beyond},
      {{false, 110, 1, 10}, beyond},
      // What libavcodec would tell the application itself.
      {{false, 100, 1, 8, 200}, ""},
      {{false, 77, 1, 8, 0, 5000}, ""},
  };
  for (const auto& [sequence, line] : rows) {
    Bytes stream = made::sequenceSet(sequence);
    append(stream, rest);
    EXPECT_EQ(complaints(stream), line) << sequence.profile;
  }
}

TEST_F(Decoder, ParameterSetsMayComeAsExtraData) {
  const H264Made made = support::encodeH264({96, 64, 5, 0, 1, 6});
  const std::vector<int> types = support::nalTypes(made.stream);
  const auto slice = std::find(types.begin(), types.end(), 5) - types.begin();
  const std::size_t start = support::nalStarts(made.stream)[static_cast<std::size_t>(slice)];
  const auto cut = made.stream.begin() + static_cast<std::ptrdiff_t>(start);
  const Bytes rest(cut, made.stream.end());
  Player player(96, 64, Bytes(made.stream.begin(), cut));
  expectPictures(player.play(rest, {0, rest.size()}, 5), support::decodeH264(made.stream).pictures);
}

TEST_F(Decoder, TimestampsStayWithTheirPicturesAcrossBFrames) {
  const H264Made made = support::encodeH264({96, 64, 12, 3, 1, 6});
  const std::vector<Yuv> expected = support::decodeH264(made.stream).pictures;
  // The picture that the first i + 1 units have and the first i have not is that of unit i.
  std::vector<std::size_t> unitOf(expected.size(), expected.size());
  for (std::size_t i = 0; i + 1 < made.units.size(); ++i) {
    const Bytes head(made.stream.begin(),
                     made.stream.begin() + static_cast<std::ptrdiff_t>(made.units[i + 1]));
    for (const Yuv& yuv : support::decodeH264(head).pictures)
      for (std::size_t k = 0; k < expected.size(); ++k)
        if (same(yuv, expected[k])) unitOf[k] = std::min(unitOf[k], i);
  }
  EXPECT_FALSE(std::is_sorted(unitOf.begin(), unitOf.end())) << "no reordering: nothing tested";
  Player player(96, 64);
  const auto seen = player.play(made.stream, made.units, expected.size());
  ASSERT_EQ(seen.size(), expected.size());
  for (std::size_t k = 0; k < seen.size(); ++k)
    EXPECT_EQ(seen[k].timestamp, (unitOf[k] + 1) * 40) << k;
}

TEST_F(Decoder, DecodeOnlyUnitsAreNotHandedOut) {
  const H264Made made = support::encodeH264({96, 64, 6, 0, 1, 6});
  std::vector<Yuv> expected = support::decodeH264(made.stream).pictures;
  expected.erase(expected.begin() + 2);
  Player player(96, 64);
  expectPictures(player.play(made.stream, made.units, 5, 2), expected);
}

TEST_F(Decoder, DamageDoesNotOutliveTheNextKeyFrame) {
  const H264Made made = support::encodeH264({96, 64, 12, 0, 1, 6});
  const std::vector<Yuv> expected = support::decodeH264(made.stream).pictures;
  // A damaged parameter set may tell of another size, which is another matter.
  const std::size_t pictures = support::nalStarts(made.stream)[2];
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    Bytes stream = made.stream;
    // The first half is flipped, cut short or rubbish; the second starts with a key frame.
    const std::size_t half = made.units[6];
    for (int i = 0; i < 40; ++i)
      stream[pictures + random() % (half - pictures)] ^= 1u << random() % 8;
    if (round % 3 == 1) stream.erase(stream.begin(), stream.begin() + 500);
    if (round % 3 == 2)
      std::generate_n(stream.begin(), half, [&] { return static_cast<std::uint8_t>(random()); });
    // One more key frame, in a piece of its own, tells where the end is.
    const std::size_t end = stream.size();
    stream.insert(stream.end(), made.stream.begin(),
                  made.stream.begin() + static_cast<std::ptrdiff_t>(made.units[1]));
    Player player(96, 64);
    const auto seen = player.play(stream, {0, end, stream.size()}, 99, -1, true);
    ASSERT_GE(seen.size(), 7u) << round;
    EXPECT_LE(seen.size(), 13u) << round;
    EXPECT_TRUE(same(seen[seen.size() - 2].yuv, expected[11])) << round;
    EXPECT_TRUE(same(seen.back().yuv, expected[0])) << round;
  }
}

TEST_F(Decoder, AStreamOfAnotherSizeIsNoCatastrophe) {
  Bytes big = support::encodeH264({160, 96, 4, 0, 1, 6}).stream;
  const H264Made made = support::encodeH264({96, 64, 3, 0, 1, 6});
  Player player(96, 64);
  // The component says that the format has changed, and waits for a Create.
  EXPECT_EQ(player.decoder().ProcessInput(big.data(), length(big), 96, 64, 0, 0), CodecOk);
  support::take(player.decoder(), 1 << 16);
  ASSERT_TRUE(player.decoder().Create(96, 64, 0, nullptr));
  expectPictures(player.play(made.stream, made.units, 3),
                 support::decodeH264(made.stream).pictures);
}

}  // namespace
