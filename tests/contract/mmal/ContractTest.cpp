// Ports, their formats and their buffers, and the marks of the frames that an encoder gives.

#include <gtest/gtest.h>

#include "Rig.h"

namespace {

using namespace contract;

TEST(Components, GoWithTheirLastReference) {
  MMAL_COMPONENT_T* component = nullptr;
  EXPECT_NE(mmal_component_create("vc.ril.nothing_at_all", &component), MMAL_SUCCESS);
  EXPECT_EQ(component, nullptr);
  for (const char* name : {imageEncode, videoEncode, videoDecode}) {
    ASSERT_EQ(mmal_component_create(name, &component), MMAL_SUCCESS) << name;
    EXPECT_EQ(component->input[0]->type, MMAL_PORT_TYPE_INPUT);
    EXPECT_EQ(component->output[0]->is_enabled, 0u);
    mmal_component_acquire(component);
    EXPECT_EQ(mmal_component_destroy(component), MMAL_SUCCESS);
    EXPECT_EQ(mmal_component_enable(component), MMAL_SUCCESS) << "still there";
    EXPECT_EQ(mmal_component_release(component), MMAL_SUCCESS);
  }
}

TEST(Ports, CheckTheirFormatsAndSetTheirBuffers) {
  constexpr std::uint32_t unknown = MMAL_FOURCC('N', 'O', 'N', 'E');
  const struct {
    const char* component;
    bool input;
    std::uint32_t encoding;
    int width, height;
    std::uint32_t atLeast;  ///< bytes recommended; 0: refused
  } rows[] = {
      {imageEncode, true, MMAL_ENCODING_YUYV, 100, 50, 128 * 64 * 2},
      {imageEncode, true, MMAL_ENCODING_RGB16, 100, 50, 128 * 64 * 2},
      {imageEncode, true, MMAL_ENCODING_RGB24, 100, 50, 128 * 64 * 3},
      {imageEncode, true, MMAL_ENCODING_RGBA, 1920, 1080, 1920 * 1088 * 4},
      {imageEncode, true, MMAL_ENCODING_H264, 64, 64, 0},
      {imageEncode, true, MMAL_ENCODING_YUYV, 0, 0, 0},
      {imageEncode, false, MMAL_ENCODING_JPEG, 64, 64, 1},
      {imageEncode, false, unknown, 64, 64, 0},
      {videoEncode, true, MMAL_ENCODING_I420, 1920, 1080, 3133440},
      {videoEncode, false, MMAL_ENCODING_H264, 64, 64, 1},
      {videoEncode, false, unknown, 64, 64, 0},
      {videoDecode, true, MMAL_ENCODING_H264, 100, 50, 1},
      {videoDecode, true, unknown, 64, 64, 0},
      {videoDecode, false, MMAL_ENCODING_I420, 100, 50, 128 * 64 * 3 / 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Rig rig(row.component);
    MMAL_PORT_T& port = row.input ? rig.in() : rig.out();
    describe(port, row.encoding, row.width, row.height);
    EXPECT_EQ(mmal_port_format_commit(&port) == MMAL_SUCCESS, row.atLeast > 0);
    if (row.atLeast == 0) continue;
    EXPECT_GE(port.buffer_num_min, 1u);
    EXPECT_GE(port.buffer_num_recommended, port.buffer_num_min);
    EXPECT_GE(port.buffer_size_recommended, port.buffer_size_min);
    EXPECT_GE(port.buffer_size_recommended, row.atLeast);
  }
}

TEST(Ports, RefuseWhatDoesNotSuitTheirState) {
  Rig rig(videoEncode);
  rig.setUpVideo(64, 48);
  rig.makePools();
  for (int round = 0; round < 2; ++round) {
    MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(rig.outPool->queue);
    ASSERT_NE(buffer, nullptr);
    EXPECT_NE(mmal_port_send_buffer(&rig.out(), buffer), MMAL_SUCCESS);
    mmal_buffer_header_release(buffer);
    rig.enablePorts();
    EXPECT_NE(mmal_port_enable(&rig.out(), Rig::onOutput), MMAL_SUCCESS) << "twice";
    EXPECT_NE(mmal_port_format_commit(&rig.out()), MMAL_SUCCESS) << "while enabled";
    rig.stop();
    EXPECT_NE(mmal_port_disable(&rig.out()), MMAL_SUCCESS) << "twice";
  }
}

/// Whether the component works on the buffers, and whether they are flushed or the port disabled.
class GivesBack : public testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(GivesBack, EveryBufferBeforeTheCallReturns) {
  const auto [works, flush] = GetParam();
  const auto askBack = flush ? mmal_port_flush : mmal_port_disable;
  Rig rig(videoEncode);
  rig.setUpVideo(320, 240);
  rig.in().buffer_num = 6;
  rig.start();
  if (!works) mmal_component_disable(rig.component);
  for (unsigned round = 1; round <= 3; ++round) {
    rig.sendOutputs();
    for (int i = 0; i < 6; ++i) rig.feedScene(i);
    EXPECT_EQ(askBack(&rig.in()), MMAL_SUCCESS);
    rig.expectInputsBack(round * 6);
    EXPECT_EQ(askBack(&rig.out()), MMAL_SUCCESS);
    rig.expectOutputsBack();
    EXPECT_EQ(rig.in().is_enabled != 0, flush);
    if (!flush) rig.enablePorts();
  }
}

INSTANTIATE_TEST_SUITE_P(Ports, GivesBack, testing::Combine(testing::Bool(), testing::Bool()));

/// Whole frames, and frames that are longer than an output buffer.
TEST(Frames, ComeOutInOrderWithTheirMarksAndTimes) {
  for (const std::uint32_t bufferSize : {65536u, 1024u}) {
    Rig rig(videoEncode);
    rig.out().format->bitrate = 2000000;
    rig.setUpVideo(320, 240);
    rig.out().buffer_size = bufferSize;
    mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_INTRAPERIOD, 5);
    rig.start();
    rig.feedScene(0);
    EXPECT_TRUE(rig.take().has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) << "the parameter sets come first";
    int pieces = 0;
    for (int t = 0; t < 12 && !HasFailure(); ++t) {
      if (t > 0) rig.feedScene(t);
      for (bool last = false; !last && !HasFailure(); ++pieces) {
        const Output output = rig.take();
        EXPECT_FALSE(output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG));
        EXPECT_EQ(output.pts, t);
        EXPECT_EQ(output.has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME), t % 5 == 0) << t;
        last = output.has(MMAL_BUFFER_HEADER_FLAG_FRAME_END);
      }
    }
    EXPECT_EQ(pieces > 12, bufferSize == 1024) << "split, or not";
  }
}

}  // namespace
