#include "Rig.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using namespace contract;

/// The worst that can come: only black or white samples.
TEST(Images, FitTheRecommendedBuffer) {
  for (const std::uint32_t encoding : {MMAL_ENCODING_YUYV, MMAL_ENCODING_RGBA}) {
    Rig rig(imageEncode);
    rig.setUp(256, 256, encoding, MMAL_ENCODING_JPEG);
    mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_JPEG_Q_FACTOR, 100);
    rig.start();
    Bytes samples = support::noise(256, 400, 3).rgb;
    samples.resize(rig.in().buffer_size);
    for (auto& sample : samples) sample = sample & 1 ? 255 : 0;
    ASSERT_TRUE(rig.feed(samples, MMAL_BUFFER_HEADER_FLAG_EOS));
    const Output output = rig.take();
    EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_EOS)) << "in one buffer";
    EXPECT_TRUE(support::decodeJpeg(output.data).ok);
  }
}

/// Whole frames, and frames that are longer than an output buffer.
TEST(Videos, ComeOutInOrderWithTheirMarksAndTimes) {
  for (const std::uint32_t bufferSize : {0u, 1024u}) {
    Rig rig(videoEncode);
    rig.setUpVideo(320, 240, 2000000);
    if (bufferSize != 0) rig.out().buffer_size = bufferSize;
    mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_INTRAPERIOD, 5);
    rig.start();
    int configs = 0, units = 0, pieces = 0;
    for (int t = 0; t < 12; ++t) {
      ASSERT_TRUE(rig.feedScene(t));
      while (units == t) {
        const Output output = rig.take();
        ASSERT_TRUE(output.came) << t;
        if (output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) {
          EXPECT_EQ(pieces, 0) << "the parameter sets come first";
          ++configs;
          continue;
        }
        EXPECT_EQ(output.pts, t * 40000);
        EXPECT_EQ(output.has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME), t % 5 == 0) << t;
        ++pieces;
        units += output.has(MMAL_BUFFER_HEADER_FLAG_FRAME_END);
      }
    }
    EXPECT_EQ(configs, 1);
    EXPECT_EQ(pieces > 12, bufferSize != 0) << "split, or not";
  }
}

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
