#include "Rig.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using namespace contract;
using support::Image;

struct Packed {
  std::uint32_t encoding;
  int bits;  ///< 0: YUYV
};

Bytes pack(const Image& image, const Packed& format) {
  const int width = support::round32(image.width), height = support::round16(image.height);
  return format.bits == 0 ? support::toYuyv(image, width, height)
                          : support::toRgb(image, format.bits, width, height);
}

/// One picture through an image encoder of its own.
Output encodeImage(const Image& image, const Packed& format, std::uint32_t quality) {
  Rig rig(imageEncode);
  rig.setUp(image.width, image.height, format.encoding, MMAL_ENCODING_JPEG);
  EXPECT_EQ(mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_JPEG_Q_FACTOR, quality),
            MMAL_SUCCESS);
  rig.start();
  EXPECT_TRUE(rig.feed(pack(image, format), MMAL_BUFFER_HEADER_FLAG_EOS));
  return rig.take();
}

class Images : public testing::TestWithParam<Packed> {};

TEST_P(Images, ComeOutWholeAndInTheirColours) {
  for (const auto& [width, height] : {std::pair{320, 240}, {100, 50}, {321, 241}, {2, 2}, {1, 1}}) {
    SCOPED_TRACE(testing::Message() << width << 'x' << height);
    const Image image = width < 64    ? support::flat(width, height, 200, 60, 30)
                        : width > 300 ? support::bars(width, height)
                                      : support::scene(width, height);
    const Output output = encodeImage(image, GetParam(), 90);
    ASSERT_TRUE(output.came);
    EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_EOS));
    const Image seen = support::decodeJpegToRgb(output.data);
    ASSERT_EQ(seen.width, width);
    ASSERT_EQ(seen.height, height);
    EXPECT_GT(support::psnr(seen.rgb, image.rgb), 24);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, Images,
                         testing::Values(Packed{MMAL_ENCODING_YUYV, 0},
                                         Packed{MMAL_ENCODING_RGB16, 16},
                                         Packed{MMAL_ENCODING_RGB24, 24},
                                         Packed{MMAL_ENCODING_RGBA, 32}));

TEST(Images, FollowTheQuality) {
  const Image image = support::scene(320, 240);
  std::size_t size = 0;
  for (const std::uint32_t quality : {20u, 50u, 75u, 95u}) {
    const Output output = encodeImage(image, {MMAL_ENCODING_RGB24, 24}, quality);
    EXPECT_GT(output.data.size(), size) << quality;
    size = output.data.size();
  }
}

/// The worst that can come: only black or white samples at the finest quality.
TEST(Images, OfNoiseFitTheRecommendedBuffer) {
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

TEST(Images, ComeOneForOneThroughTheWrapper) {
  MMAL_WRAPPER_T* wrapper = nullptr;
  ASSERT_EQ(mmal_wrapper_create(&wrapper, imageEncode), MMAL_SUCCESS);
  MMAL_PORT_T &in = *wrapper->input[0], &out = *wrapper->output[0];
  std::atomic<int> called{0};
  wrapper->user_data = &called;
  wrapper->callback = [](MMAL_WRAPPER_T* w) { ++*static_cast<std::atomic<int>*>(w->user_data); };
  describe(in, MMAL_ENCODING_RGB24, 64, 48);
  out.format->encoding = MMAL_ENCODING_JPEG;
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  for (int round = 0; round < 2; ++round) {
    for (MMAL_PORT_T* port : {&in, &out}) {
      ASSERT_EQ(mmal_port_format_commit(port), MMAL_SUCCESS);
      port->buffer_size = port->buffer_size_recommended;
      port->buffer_num = port->buffer_num_recommended;
      ASSERT_EQ(mmal_wrapper_port_enable(port, MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE), MMAL_SUCCESS);
    }
    EXPECT_EQ(mmal_wrapper_buffer_get_full(&out, &buffer, 0), MMAL_EAGAIN);
    for (int t = 0; t < 5; ++t) {
      const Image image = support::scene(64, 48, t * 7);
      while (mmal_wrapper_buffer_get_empty(&out, &buffer, 0) == MMAL_SUCCESS)
        ASSERT_EQ(mmal_port_send_buffer(&out, buffer), MMAL_SUCCESS);
      ASSERT_EQ(mmal_wrapper_buffer_get_empty(&in, &buffer, MMAL_WRAPPER_FLAG_WAIT), MMAL_SUCCESS);
      std::copy(image.rgb.begin(), image.rgb.end(), buffer->data);
      buffer->length = buffer->alloc_size;
      ASSERT_EQ(mmal_port_send_buffer(&in, buffer), MMAL_SUCCESS);
      ASSERT_EQ(mmal_wrapper_buffer_get_full(&out, &buffer, MMAL_WRAPPER_FLAG_WAIT), MMAL_SUCCESS);
      const Bytes jpeg(buffer->data, buffer->data + buffer->length);
      mmal_buffer_header_release(buffer);
      EXPECT_GT(support::psnr(support::decodeJpegToRgb(jpeg).rgb, image.rgb), 27) << t;
    }
    EXPECT_EQ(mmal_wrapper_port_disable(&in), MMAL_SUCCESS);
    EXPECT_EQ(mmal_wrapper_port_disable(&out), MMAL_SUCCESS);
  }
  EXPECT_GE(called, 20);
  EXPECT_EQ(wrapper->status, MMAL_SUCCESS);
  EXPECT_EQ(mmal_wrapper_destroy(wrapper), MMAL_SUCCESS);
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
  for (int t = 0; t < frames; ++t) {
    const auto expected = support::toYuv(support::scene(row.width, row.height, t));
    ASSERT_EQ(seen.pictures[t].width, row.width);
    EXPECT_GT(support::lumaPsnr(seen.pictures[t], expected), 26) << t;
  }
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
