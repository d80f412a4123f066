#include "Rig.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using namespace contract;

/// The worst that can come: only black or white samples, up to the finest quality.
TEST(Images, FollowTheQualityAndFitTheRecommendedBuffer) {
  for (const std::uint32_t encoding : {MMAL_ENCODING_YUYV, MMAL_ENCODING_RGBA}) {
    std::size_t size = 0;
    for (const std::uint32_t quality : {20u, 75u, 100u}) {
      Rig rig(imageEncode);
      rig.setUp(256, 256, encoding, MMAL_ENCODING_JPEG);
      mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_JPEG_Q_FACTOR, quality);
      rig.start();
      Bytes samples = support::noise(256, 400, 3).rgb;
      samples.resize(rig.in().buffer_size);
      for (auto& sample : samples) sample = sample & 1 ? 255 : 0;
      ASSERT_TRUE(rig.feed(samples, MMAL_BUFFER_HEADER_FLAG_EOS));
      const Output output = rig.take();
      EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_EOS)) << "in one buffer";
      EXPECT_TRUE(support::decodeJpeg(output.data).ok);
      EXPECT_GT(output.data.size(), size) << quality;
      size = output.data.size();
    }
  }
}

struct Video {
  int width, height;
  std::uint32_t bufferSize;  ///< of an output buffer; 0: as recommended
  std::uint32_t keyInterval;
};

class Videos : public testing::TestWithParam<Video> {};

TEST_P(Videos, ComeOutInOrderWithTheirParameterSets) {
  const Video& row = GetParam();
  constexpr int frames = 12;
  Rig rig(videoEncode);
  rig.setUpVideo(row.width, row.height, 2000000);
  if (row.bufferSize != 0) rig.out().buffer_size = row.bufferSize;
  mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_INTRAPERIOD, row.keyInterval);
  const MMAL_PARAMETER_VIDEO_PROFILE_T profile{
      {MMAL_PARAMETER_PROFILE, sizeof(profile)},
      {{MMAL_VIDEO_PROFILE_H264_MAIN, MMAL_VIDEO_LEVEL_H264_4}}};
  EXPECT_EQ(mmal_port_parameter_set(&rig.out(), &profile.hdr), MMAL_SUCCESS);
  rig.start();
  Bytes stream;
  int configs = 0, units = 0, pieces = 0;
  for (int t = 0; t < frames; ++t) {
    ASSERT_TRUE(rig.feedScene(t));
    while (units == t) {
      const Output output = rig.take();
      ASSERT_TRUE(output.came) << t;
      stream.insert(stream.end(), output.data.begin(), output.data.end());
      if (output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) {
        EXPECT_EQ(pieces, 0) << "the parameter sets come first";
        ++configs;
        continue;
      }
      EXPECT_EQ(output.pts, t * 40000);
      EXPECT_EQ(output.has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME), t % row.keyInterval == 0) << t;
      ++pieces;
      units += output.has(MMAL_BUFFER_HEADER_FLAG_FRAME_END);
    }
  }
  EXPECT_EQ(configs, 1);
  EXPECT_EQ(pieces > frames, row.bufferSize != 0) << "split, or not";
  const support::H264Stream seen = support::decodeH264(stream);
  EXPECT_EQ(seen.profile, 77);
  EXPECT_EQ(seen.level, 40);
  ASSERT_EQ(seen.pictures.size(), static_cast<std::size_t>(frames));
  EXPECT_EQ(seen.pictures[0].width, row.width);
  EXPECT_GT(worstPsnr(seen.pictures, support::scenes(frames, row.width, row.height)), 26);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Videos,
                         testing::Values(Video{320, 240, 0, 30}, Video{100, 50, 0, 4},
                                         Video{320, 240, 1024, 5}, Video{64, 48, 0, 1}));

/// Without output buffers nothing is lost and nothing piles up: input waits.
TEST(Videos, WaitForTheirOutputBuffers) {
  Rig rig(videoEncode);
  rig.setUpVideo(96, 64);
  rig.in().buffer_num = 2;
  rig.start(0);
  int fed = 0;
  while (rig.feedScene(fed, 200)) ASSERT_LT(++fed, 10) << "input is taken without end";
  Bytes stream;
  rig.sendOutputs();
  for (int units = 0; units < fed;) {
    const Output output = rig.take();
    ASSERT_TRUE(output.came);
    stream.insert(stream.end(), output.data.begin(), output.data.end());
    units += !output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG);
  }
  EXPECT_EQ(support::decodeH264(stream).pictures.size(), static_cast<std::size_t>(fed));
}

}  // namespace
