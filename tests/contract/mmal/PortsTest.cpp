#include "Rig.h"

namespace {

using namespace contract;

struct Commit {
  const char* component;
  bool input;
  std::uint32_t encoding;
  int width, height;
  std::uint32_t atLeast;  ///< bytes recommended; 0: refused
};
constexpr std::uint32_t unknown = MMAL_FOURCC('N', 'O', 'N', 'E');
constexpr Commit commits[] = {
    {imageEncode, true, MMAL_ENCODING_YUYV, 100, 50, 128 * 64 * 2},
    {imageEncode, true, MMAL_ENCODING_RGB16, 100, 50, 128 * 64 * 2},
    {imageEncode, true, MMAL_ENCODING_RGB24, 100, 50, 128 * 64 * 3},
    {imageEncode, true, MMAL_ENCODING_RGBA, 1920, 1080, 1920 * 1088 * 4},
    {imageEncode, true, MMAL_ENCODING_YUYV, 1, 1, 32 * 16 * 2},
    {imageEncode, true, MMAL_ENCODING_H264, 64, 64, 0},
    {imageEncode, true, unknown, 64, 64, 0},
    {imageEncode, true, MMAL_ENCODING_YUYV, 0, 0, 0},
    {imageEncode, false, MMAL_ENCODING_JPEG, 64, 64, 1},
    {imageEncode, false, unknown, 64, 64, 0},
    {videoEncode, true, MMAL_ENCODING_I420, 1920, 1080, 3133440},
    {videoEncode, true, unknown, 64, 64, 0},
    {videoEncode, false, MMAL_ENCODING_H264, 64, 64, 1},
    {videoEncode, false, unknown, 64, 64, 0},
    {videoDecode, true, MMAL_ENCODING_H264, 100, 50, 1},
    {videoDecode, true, unknown, 64, 64, 0},
    {videoDecode, false, MMAL_ENCODING_I420, 100, 50, 128 * 64 * 3 / 2},
    {videoDecode, false, unknown, 64, 64, 0},
};

TEST(Ports, CheckTheirFormatsAndSetTheirBuffers) {
  for (const Commit& row : commits) {
    SCOPED_TRACE(&row - commits);
    Rig rig(row.component);
    MMAL_PORT_T& port = row.input ? rig.in() : rig.out();
    for (int round = 0; round < 2; ++round) {  // a second one is as good as the first
      describe(port, row.encoding, row.width, row.height);
      EXPECT_EQ(mmal_port_format_commit(&port) == MMAL_SUCCESS, row.atLeast > 0);
      if (row.atLeast == 0) continue;
      EXPECT_GE(port.buffer_num_min, 1u);
      EXPECT_GE(port.buffer_num_recommended, port.buffer_num_min);
      EXPECT_GE(port.buffer_size_recommended, port.buffer_size_min);
      EXPECT_GE(port.buffer_size_recommended, row.atLeast);
    }
  }
}

TEST(Ports, RefuseBuffersWhileDisabled) {
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

TEST(Ports, TakeFlushesAndTheWrappersDisableAsTheyAre) {
  for (const char* name : {imageEncode, videoEncode, videoDecode}) {
    Rig rig(name);
    EXPECT_EQ(mmal_port_flush(&rig.out()), MMAL_SUCCESS);
    EXPECT_EQ(mmal_port_flush(&rig.in()), MMAL_SUCCESS);
    EXPECT_NE(mmal_wrapper_port_disable(&rig.out()), MMAL_SUCCESS) << "never enabled";
    EXPECT_EQ(mmal_component_disable(rig.component), MMAL_SUCCESS);
  }
  Rig rig(videoEncode);
  rig.setUpVideo(64, 48);
  rig.start();
  EXPECT_EQ(mmal_wrapper_port_disable(&rig.out()), MMAL_SUCCESS) << "of no wrapper";
  EXPECT_EQ(rig.out().is_enabled, 0u);
  EXPECT_EQ(rig.outputsBack, static_cast<int>(rig.out().buffer_num));
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
  for (int round = 0; round < 3; ++round) {
    rig.sendOutputs();
    for (int i = 0; i < 6; ++i) rig.feedScene(i);
    EXPECT_EQ(askBack(&rig.in()), MMAL_SUCCESS);
    EXPECT_EQ(mmal_queue_length(rig.inPool->queue), 6u);
    EXPECT_EQ(rig.inputsBack, (round + 1) * 6);
    EXPECT_EQ(askBack(&rig.out()), MMAL_SUCCESS);
    rig.expectOutputsBack();
    EXPECT_EQ(rig.in().is_enabled != 0, flush);
    if (!flush) rig.enablePorts();
  }
}

INSTANTIATE_TEST_SUITE_P(Ports, GivesBack, testing::Combine(testing::Bool(), testing::Bool()));

TEST(Ports, AComponentCanGoAtAnyMoment) {
  for (int moment = 0; moment < 40; ++moment) {
    Rig rig(videoEncode);
    rig.setUpVideo(160, 96);
    rig.in().buffer_num = 3;
    rig.start();
    for (int i = 0; i < moment % 4; ++i) rig.feedScene(0);
    if (moment % 3 == 0) rig.take(moment % 5);
    if (moment % 2 != 0) mmal_component_disable(rig.component);
  }
}

}  // namespace
