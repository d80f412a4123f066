#include <gtest/gtest.h>

#include <climits>

#include "codec/H264Encoder.h"
#include "convert/GuardedMemory.h"
#include "support/Capture.h"
#include "support/H264Oracle.h"

using codec::H264Encoder;
using support::Bytes;
using support::Yuv;
using Config = H264Encoder::Config;

namespace {

codec::ConstPlanes planesOf(const Yuv& picture) {
  return {picture.y.data(), picture.u.data(), picture.v.data(),
          static_cast<unsigned>(picture.width), static_cast<unsigned>(picture.chromaWidth())};
}

Config configOf(unsigned width, unsigned height) {
  Config config;
  config.width = width;
  config.height = height;
  config.bitrate = 2000000;
  return config;
}

Yuv picture(const Config& config, int t) {
  return support::toYuv(
      support::scene(static_cast<int>(config.width), static_cast<int>(config.height), t));
}

bool holds(const Bytes& stream, unsigned nalType) {
  for (const std::size_t at : support::nalStarts(stream)) {
    std::size_t header = at;
    while (header < stream.size() && stream[header] == 0) ++header;
    if (header + 1 < stream.size() && (stream[header + 1] & 31u) == nalType) return true;
  }
  return false;
}
constexpr unsigned sei = 6, sps = 7, pps = 8;

struct Encoded {
  Bytes stream;  ///< parameter sets first
  std::vector<Bytes> frames;
  std::vector<bool> keyFrames;
};

/// Encodes `count` frames of the scene, back at its first after 30 (or always that one: still).
Encoded encode(H264Encoder& encoder, const Config& config, int count, bool still = false) {
  Encoded encoded;
  EXPECT_TRUE(encoder.open(config)) << encoder.error();
  encoded.stream = encoder.parameterSets();
  std::vector<Yuv> pictures;
  for (int t = 0; t < count; ++t) {
    if (t < (still ? 1 : 30)) pictures.push_back(picture(config, t));
    const Yuv& frame = pictures[static_cast<std::size_t>(t) % pictures.size()];
    EXPECT_TRUE(encoder.encode(planesOf(frame), t)) << encoder.error();
    EXPECT_GT(encoder.size(), 0u);
    encoded.frames.emplace_back(encoder.data(), encoder.data() + encoder.size());
    encoded.keyFrames.push_back(encoder.isKeyFrame());
    encoded.stream.insert(encoded.stream.end(), encoder.data(), encoder.data() + encoder.size());
  }
  return encoded;
}

Encoded encode(const Config& config, int count, bool still = false) {
  H264Encoder encoder;
  return encode(encoder, config, count, still);
}

class H264EncoderSizeTest : public testing::TestWithParam<std::pair<unsigned, unsigned>> {};

TEST_P(H264EncoderSizeTest, OneFrameInOneOutAndNothingReadOutside) {
  Config config = configOf(GetParam().first, GetParam().second);
  config.level = 10;  // too low for most of them, and written all the same
  config.bitrate = 8000000;
  H264Encoder encoder;
  ASSERT_TRUE(encoder.open(config)) << encoder.error();
  Bytes stream = encoder.parameterSets();
  std::vector<Yuv> source;
  GuardedMemory memory[3] = {GuardedMemory(config.width * config.height),
                             GuardedMemory(config.width * config.height),
                             GuardedMemory(config.width * config.height)};
  for (int t = 0; t < 4; ++t) {
    source.push_back(picture(config, t));
    const Bytes* const planes[3] = {&source[t].y, &source[t].u, &source[t].v};
    std::uint8_t* at[3];
    for (int i = 0; i < 3; ++i) {
      at[i] = t % 2 == 0 ? memory[i].atEnd(planes[i]->size()) : memory[i].atStart();
      std::copy(planes[i]->begin(), planes[i]->end(), at[i]);
    }
    ASSERT_TRUE(encoder.encode({at[0], at[1], at[2], config.width, (config.width + 1) / 2}, t));
    ASSERT_GT(encoder.size(), 0u);
    EXPECT_EQ(encoder.isKeyFrame(), t == 0);
    stream.insert(stream.end(), encoder.data(), encoder.data() + encoder.size());
  }
  const support::H264Stream decoded = support::decodeH264(stream);
  ASSERT_EQ(decoded.pictures.size(), 4u);
  EXPECT_EQ(decoded.level, 10);
  for (std::size_t t = 0; t < 4; ++t) {
    const Yuv& shown = decoded.pictures[t];
    ASSERT_EQ(shown.width, static_cast<int>(codec::roundUp(config.width, 2)));
    ASSERT_EQ(shown.height, static_cast<int>(codec::roundUp(config.height, 2)));
    Yuv cropped = source[t];
    for (int y = 0; y < cropped.height; ++y)
      std::copy_n(&shown.y[static_cast<std::size_t>(y) * shown.width], cropped.width,
                  &cropped.y[static_cast<std::size_t>(y) * cropped.width]);
    EXPECT_GT(support::lumaPsnr(cropped, source[t]), 28) << t;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, H264EncoderSizeTest,
                         testing::Values(std::pair(1, 1), std::pair(2, 2), std::pair(3, 5),
                                         std::pair(17, 1), std::pair(1, 33), std::pair(321, 241),
                                         std::pair(705, 480), std::pair(780, 360),
                                         std::pair(1366, 768)),
                         [](const auto& tested) {
                           return std::to_string(tested.param.first) + 'x' +
                                  std::to_string(tested.param.second);
                         });

TEST(H264Encoder, WritesWhatItWasToldIntoTheStream) {
  using Profile = H264Encoder::Profile;
  const struct {
    Profile profile;
    int profileInStream;
    unsigned level, num, den, aspectNum, aspectDen;
  } rows[] = {{Profile::High, 100, 40, 30, 1, 1, 1},
              {Profile::Main, 77, 31, 25, 1, 4, 3},
              {Profile::Baseline, 66, 30, 30000, 1001, 16, 11},
              {Profile::ConstrainedBaseline, 66, 42, 15, 2, 12, 11}};
  for (const auto& row : rows) {
    Config config = configOf(320, 240);
    config.profile = row.profile;
    config.level = row.level;
    config.frameRateNum = row.num;
    config.frameRateDen = row.den;
    config.aspectNum = row.aspectNum;
    config.aspectDen = row.aspectDen;
    const support::H264Stream decoded = support::decodeH264(encode(config, 3).stream);
    EXPECT_EQ(decoded.profile, row.profileInStream);
    EXPECT_EQ(decoded.level, static_cast<int>(row.level));
    EXPECT_EQ(decoded.frameRateNum * std::int64_t{row.den},
              decoded.frameRateDen * std::int64_t{row.num});
    EXPECT_EQ(decoded.aspectNum, static_cast<int>(row.aspectNum));
    EXPECT_EQ(decoded.aspectDen, static_cast<int>(row.aspectDen));
    EXPECT_EQ(decoded.pictures.size(), 3u);
  }
}

TEST(H264Encoder, KeyFramesComeWhenDueWithTheirParameterSets) {
  for (const unsigned period : {1u, 2u, 7u, 0u}) {
    Config config = configOf(160, 120);
    config.frameRateNum = 12;
    config.intraPeriod = period;
    const unsigned every = period == 0 ? 12 : period;
    const Encoded encoded = encode(config, 25);
    for (std::size_t t = 0; t < 25; ++t) {
      EXPECT_EQ(encoded.keyFrames[t], t % every == 0) << t;
      const bool repeats = t > 0 && t % every == 0;
      EXPECT_EQ(holds(encoded.frames[t], sps), repeats) << t;
      EXPECT_EQ(holds(encoded.frames[t], pps), repeats) << t;
      EXPECT_FALSE(holds(encoded.frames[t], sei)) << t;
    }
    // Whoever joins at a key frame sees everything from there.
    Bytes joined;
    for (std::size_t t = every; t < 25; ++t)
      joined.insert(joined.end(), encoded.frames[t].begin(), encoded.frames[t].end());
    EXPECT_EQ(support::decodeH264(joined).pictures.size(), 25u - every);
  }
}

TEST(H264Encoder, AScenesChangeIsNoKeyFrameAndAForcedOneIs) {
  const Config config = configOf(160, 120);
  H264Encoder encoder;
  ASSERT_TRUE(encoder.open(config));
  for (int t = 0; t < 20; ++t) {
    const Yuv frame = support::toYuv(support::noise(160, 120, static_cast<unsigned>(t)));
    ASSERT_TRUE(encoder.encode(planesOf(frame), t, t == 11));
    EXPECT_EQ(encoder.isKeyFrame(), t == 0 || t == 11);
  }
}

TEST(H264Encoder, KeepsTheBitRate) {
  for (const bool constant : {false, true})
    for (const unsigned bitrate : {300000u, 1000000u}) {
      Config config = configOf(320, 240);
      config.bitrate = bitrate;
      config.constantBitrate = constant;
      const auto bits = [&](int frames, bool still) {
        return 8.0 * static_cast<double>(encode(config, frames, still).stream.size());
      };
      EXPECT_NEAR(bits(300, false) / (10.0 * bitrate), 1.0, 0.1);  // 30 frames a second
      EXPECT_LT(bits(90, true) / (3.0 * bitrate), 1.1);
    }
}

TEST(H264Encoder, TimeStampsComeBackWhateverTheyAre) {
  const Config config = configOf(64, 64);
  H264Encoder encoder;
  ASSERT_TRUE(encoder.open(config));
  const Yuv frame = picture(config, 0);
  for (const std::int64_t pts : {std::int64_t{5}, std::int64_t{5}, std::int64_t{-7}, INT64_MIN,
                                 INT64_MAX, std::int64_t{0}}) {
    ASSERT_TRUE(encoder.encode(planesOf(frame), pts));
    EXPECT_EQ(encoder.pts(), pts);
    EXPECT_GT(encoder.size(), 0u);
  }
}

TEST(H264Encoder, ObjectsAndRestartsDoNotDisturbEachOther) {
  const Config small = configOf(160, 120), large = configOf(640, 480);
  const Encoded expected = encode(small, 10);
  H264Encoder again, other;
  ASSERT_TRUE(other.open(large));
  encode(again, large, 3);
  const Encoded restarted = encode(again, small, 10);
  EXPECT_EQ(restarted.stream, expected.stream);
  EXPECT_TRUE(other.isOpen());
}

TEST(H264Encoder, RefusesAndSaysWhyAndPrintsNothing) {
  const Config good = configOf(16, 16);
  std::vector<Config> refused = {configOf(0, 16), configOf(16, 0), configOf(20000, 16)};
  refused.insert(refused.end(), 3, good);
  refused[3].frameRateNum = 0;
  refused[4].frameRateDen = 0;
  refused[5].level = 47;
  const Yuv frame = picture(good, 0);
  support::Capture capture;
  H264Encoder encoder;
  for (std::size_t i = 0; i < refused.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(encoder.open(good));
    EXPECT_FALSE(encoder.encode({}, 0));
    EXPECT_FALSE(encoder.open(refused[i]));
    EXPECT_FALSE(encoder.isOpen());
    EXPECT_FALSE(encoder.error().empty());
    EXPECT_FALSE(encoder.encode(planesOf(frame), 0));
  }
  EXPECT_EQ(capture.out() + capture.err(), "");
}

}  // namespace
