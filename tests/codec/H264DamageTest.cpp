#include <gtest/gtest.h>

#include "H264Feeding.h"
#include "support/Capture.h"

extern "C" {
#include <x264.h>
}

using support::Bytes;
using support::H264Made;

namespace {

/// Six groups of five frames.
const H264Made& made(const std::string& profile) {
  static const auto encode = [](const char* name) {
    support::H264Options options;
    options.frames = 30;
    options.keyInterval = 5;
    options.slices = 2;
    options.profile = name;
    return support::encodeH264(options);
  };
  static const H264Made high = encode("high"), baseline = encode("baseline");
  return profile == "high" ? high : baseline;
}

class H264DamageTest : public testing::TestWithParam<const char*> {
 protected:
  /// Feeds it to a new decoder. The pictures of the last group, which nothing was done to, are
  /// exact.
  Shown expectCleanEnd(const Bytes& stream, const std::vector<std::size_t>& cuts) {
    OpenDecoder decoder;
    const support::Capture capture;
    const Shown shown = feed(decoder, stream, cuts);
    const std::size_t count = shown.pictures.size();
    EXPECT_GE(count, 5u);
    EXPECT_LE(count, expected_.size());
    for (std::size_t i = 1; i <= std::min<std::size_t>(count, 5); ++i) {
      EXPECT_TRUE(same(shown.pictures[count - i], expected_[30 - i])) << i;
      EXPECT_FALSE(shown.damaged[count - i]) << i;
    }
    return shown;
  }

  const H264Made& made_ = made(GetParam());
  const std::vector<support::Yuv> expected_ = support::decodeH264(made_.stream).pictures;
};

TEST_P(H264DamageTest, DamagedBytesLeaveTheNextKeyFrameClean) {
  std::mt19937 random(12);
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    Bytes bad = made_.stream;
    for (unsigned n = 1 + random() % 12; n > 0; --n)
      bad[random() % made_.units[25]] = static_cast<std::uint8_t>(random());
    for (const char* how : {"unit", "1000"}) expectCleanEnd(bad, cut(made_, how));
  }
}

TEST_P(H264DamageTest, LostBytesLeaveTheNextKeyFrameClean) {
  std::mt19937 random(13);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    Bytes stream;
    std::vector<std::size_t> cuts = {0};
    for (std::size_t i = 0; i + 1 < made_.units.size(); ++i) {
      const std::size_t size = made_.units[i + 1] - made_.units[i];
      const bool hit = i > 0 && i < 25 && random() % 4 == 0;
      const std::uint8_t* const from = &made_.stream[made_.units[i]];
      stream.insert(stream.end(), from, from + (hit ? random() % size : size));
      if (stream.size() > cuts.back()) cuts.push_back(stream.size());
    }
    expectCleanEnd(stream, cuts);
  }
}

TEST_P(H264DamageTest, ADamagedUnitComesOutMarkedAndOnlyOnce) {
  Bytes bad = made_.stream;
  std::vector<std::size_t> cuts = made_.units;
  const auto end = bad.begin() + static_cast<std::ptrdiff_t>(cuts[11]);
  bad.erase(end - 40, end);
  for (std::size_t i = 11; i < cuts.size(); ++i) cuts[i] -= 40;
  const Shown shown = expectCleanEnd(bad, cuts);
  ASSERT_EQ(shown.pictures.size(), expected_.size());
  EXPECT_EQ(firstDifference(shown.pictures, expected_), 10u);
  EXPECT_TRUE(shown.damaged[10]);
  for (std::size_t i = 0; i < shown.pts.size(); ++i)
    EXPECT_EQ(shown.pts[i], static_cast<std::int64_t>(i));
}

TEST_P(H264DamageTest, WhoJoinsLateSeesTheNextKeyFrame) {
  expectCleanEnd(made_.stream, {made_.units.begin() + 7, made_.units.end()});
}

INSTANTIATE_TEST_SUITE_P(Profiles, H264DamageTest, testing::Values("high", "baseline"),
                         [](const auto& profile) { return std::string(profile.param); });

TEST(H264Decoder, GarbageGivesNothingAndItsDecoderPrintsNothing) {
  std::mt19937 random(14);
  support::Capture capture;
  for (const unsigned density : {0u, 3u, 40u}) {
    Bytes garbage(200000);
    for (std::uint8_t& byte : garbage) byte = static_cast<std::uint8_t>(random());
    for (std::size_t i = 0; density > 0 && i + 4 < garbage.size(); i += random() % (800 / density))
      garbage[i] = garbage[i + 1] = 0, garbage[i + 2] = 1;
    OpenDecoder decoder;
    for (std::size_t at = 0; at < garbage.size(); at += 5000) {
      decoder.feed(&garbage[at], 5000, 0, false, true);
      Shown().take(decoder);
    }
    EXPECT_TRUE(feed(decoder, Bytes(100000), {0, 50000, 100000}).pictures.empty());
    // What follows garbage is decoded.
    const H264Made& good = made("high");
    EXPECT_GE(feed(decoder, good.stream, good.units).pictures.size(), 25u);
  }
  // libavcodec says one thing of broken scaling lists that it does not tie to a decoder.
  EXPECT_EQ(capture.out(), "");
  EXPECT_EQ(capture.err().find("h264"), std::string::npos);
}

TEST(H264Decoder, DropsWhatIsNot420AndSaysSo) {
  x264_param_t param;
  x264_param_default_preset(&param, "ultrafast", "zerolatency");
  param.i_log_level = X264_LOG_NONE;
  param.i_width = param.i_height = 64;
  param.i_csp = X264_CSP_I444;
  param.i_threads = 1;
  x264_t* const encoder = x264_encoder_open(&param);
  x264_picture_t in, out;
  ASSERT_EQ(x264_picture_alloc(&in, X264_CSP_I444, 64, 64), 0);
  x264_nal_t* nals = nullptr;
  int count = 0;
  const int size = x264_encoder_encode(encoder, &nals, &count, &in, &out);
  ASSERT_GT(size, 0);
  const Bytes stream(nals[0].p_payload, nals[0].p_payload + size);
  x264_picture_clean(&in);
  x264_encoder_close(encoder);
  OpenDecoder decoder;
  EXPECT_TRUE(feed(decoder, stream, {0, stream.size()}).pictures.empty());
  EXPECT_NE(decoder.error(), "");
  const H264Made& good = made("high");
  EXPECT_EQ(feed(decoder, good.stream, good.units).pictures.size(), 30u);
}

}  // namespace
