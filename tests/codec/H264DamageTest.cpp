#include <gtest/gtest.h>

#include "H264Feeding.h"
#include "support/Capture.h"

extern "C" {
#include <x264.h>
}

using codec::H264Decoder;
using support::Bytes;
using support::H264Made;
using support::H264Options;

namespace {

/// Six groups of five frames.
const H264Made& made(const char* profile) {
  static const auto encode = [](const char* name) {
    H264Options options;
    options.frames = 30;
    options.keyInterval = 5;
    options.slices = 2;
    options.profile = name;
    return support::encodeH264(options);
  };
  static const H264Made high = encode("high"), baseline = encode("baseline");
  return profile[0] == 'h' ? high : baseline;
}

class H264DamageTest : public testing::TestWithParam<const char*> {
 protected:
  const H264Made& made_ = made(GetParam());
  const std::vector<support::Yuv> expected_ = support::decodeH264(made_.stream).pictures;

  /// The pictures of the last group, which nothing was done to, are exact.
  void expectCleanEnd(const Shown& shown, const std::string& what) {
    ASSERT_GE(shown.pictures.size(), 5u) << what;
    EXPECT_LE(shown.pictures.size(), expected_.size()) << what;
    for (std::size_t i = 1; i <= 5; ++i) {
      EXPECT_TRUE(same(shown.pictures[shown.pictures.size() - i], expected_[30 - i])) << what << i;
      EXPECT_FALSE(shown.damaged[shown.pictures.size() - i]) << what << i;
    }
  }
};

TEST_P(H264DamageTest, DamagedBytesLeaveTheNextKeyFrameClean) {
  std::mt19937 random(12);
  for (int round = 0; round < 60; ++round) {
    Bytes bad = made_.stream;
    for (unsigned n = 1 + random() % 12; n > 0; --n)
      bad[random() % made_.units[25]] = static_cast<std::uint8_t>(random());
    for (const char* how : {"unit", "1000"}) {
      H264Decoder decoder;
      ASSERT_TRUE(decoder.open(nullptr, 0));
      const support::Capture capture;
      const Shown shown = feed(decoder, bad, cut(made_, how));
      expectCleanEnd(shown, how + std::to_string(round));
    }
  }
}

TEST_P(H264DamageTest, LostBytesLeaveTheNextKeyFrameClean) {
  std::mt19937 random(13);
  for (int round = 0; round < 40; ++round) {
    Bytes stream;
    std::vector<std::size_t> cuts;
    for (std::size_t i = 0; i + 1 < made_.units.size(); ++i) {
      cuts.push_back(stream.size());
      const std::size_t size = made_.units[i + 1] - made_.units[i];
      const bool hit = i > 0 && i < 25 && random() % 4 == 0;
      const std::size_t kept = hit ? random() % size : size;
      const auto from = made_.stream.begin() + static_cast<std::ptrdiff_t>(made_.units[i]);
      stream.insert(stream.end(), from, from + static_cast<std::ptrdiff_t>(kept));
      if (kept == 0) cuts.pop_back();
    }
    cuts.push_back(stream.size());
    H264Decoder decoder;
    ASSERT_TRUE(decoder.open(nullptr, 0));
    expectCleanEnd(feed(decoder, stream, cuts), std::to_string(round));
  }
}

TEST_P(H264DamageTest, ADamagedUnitComesOutMarkedAndOnlyOnce) {
  Bytes bad = made_.stream;
  std::vector<std::size_t> cuts = made_.units;
  const auto end = bad.begin() + static_cast<std::ptrdiff_t>(cuts[11]);
  bad.erase(end - 40, end);
  for (std::size_t i = 11; i < cuts.size(); ++i) cuts[i] -= 40;
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  const Shown shown = feed(decoder, bad, cuts);
  ASSERT_EQ(shown.pictures.size(), expected_.size());
  EXPECT_EQ(firstDifference(shown.pictures, expected_), 10u);
  EXPECT_TRUE(shown.damaged[10]);
  for (std::size_t i = 0; i < shown.pts.size(); ++i)
    EXPECT_EQ(shown.pts[i], static_cast<std::int64_t>(i));
}

TEST_P(H264DamageTest, WhoJoinsLateSeesTheNextKeyFrame) {
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  const std::vector<std::size_t> cuts(made_.units.begin() + 7, made_.units.end());
  expectCleanEnd(feed(decoder, made_.stream, cuts), "late");
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
      std::fill_n(garbage.begin() + static_cast<std::ptrdiff_t>(i), 2, 0), garbage[i + 2] = 1;
    H264Decoder decoder;
    ASSERT_TRUE(decoder.open(nullptr, 0));
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
  ASSERT_NE(encoder, nullptr);
  x264_picture_t in, out;
  ASSERT_EQ(x264_picture_alloc(&in, X264_CSP_I444, 64, 64), 0);
  x264_nal_t* nals = nullptr;
  int count = 0;
  const int size = x264_encoder_encode(encoder, &nals, &count, &in, &out);
  ASSERT_GT(size, 0);
  const Bytes stream(nals[0].p_payload, nals[0].p_payload + size);
  x264_picture_clean(&in);
  x264_encoder_close(encoder);
  H264Decoder decoder;
  ASSERT_TRUE(decoder.open(nullptr, 0));
  EXPECT_TRUE(feed(decoder, stream, {0, stream.size()}).pictures.empty());
  EXPECT_NE(decoder.error(), "");
  const H264Made& good = made("high");
  EXPECT_EQ(feed(decoder, good.stream, good.units).pictures.size(), 30u);
}

}  // namespace
