#include "Rig.h"

namespace {

using namespace contract;

void ignore(MMAL_PORT_T*, MMAL_BUFFER_HEADER_T* buffer) {
  mmal_buffer_header_release(buffer);
}

struct Commit {
  const char* component;
  bool input;
  std::uint32_t encoding;
  int width, height;
  bool taken;
  std::uint32_t atLeast;  ///< bytes recommended
};

class Commits : public testing::TestWithParam<Commit> {};

TEST_P(Commits, AreCheckedAndSetTheBuffers) {
  const Commit& row = GetParam();
  Rig rig(row.component);
  MMAL_PORT_T& port = row.input ? rig.in() : rig.out();
  for (int round = 0; round < 2; ++round) {  // a second one is as good as the first
    describe(port, row.encoding, row.width, row.height);
    EXPECT_EQ(mmal_port_format_commit(&port) == MMAL_SUCCESS, row.taken);
    if (!row.taken) continue;
    EXPECT_GE(port.buffer_num_min, 1u);
    EXPECT_GE(port.buffer_num_recommended, port.buffer_num_min);
    EXPECT_GE(port.buffer_size_recommended, port.buffer_size_min);
    EXPECT_GE(port.buffer_size_recommended, row.atLeast);
  }
}

constexpr std::uint32_t unknown = MMAL_FOURCC('N', 'O', 'N', 'E');

INSTANTIATE_TEST_SUITE_P(
    AllPorts, Commits,
    testing::Values(Commit{imageEncode, true, MMAL_ENCODING_YUYV, 100, 50, true, 128 * 64 * 2},
                    Commit{imageEncode, true, MMAL_ENCODING_RGB16, 100, 50, true, 128 * 64 * 2},
                    Commit{imageEncode, true, MMAL_ENCODING_RGB24, 100, 50, true, 128 * 64 * 3},
                    Commit{imageEncode, true, MMAL_ENCODING_RGBA, 1920, 1080, true,
                           1920 * 1088 * 4},
                    Commit{imageEncode, true, MMAL_ENCODING_YUYV, 1, 1, true, 32 * 16 * 2},
                    Commit{imageEncode, true, MMAL_ENCODING_H264, 64, 64, false, 0},
                    Commit{imageEncode, true, unknown, 64, 64, false, 0},
                    Commit{imageEncode, true, MMAL_ENCODING_YUYV, 0, 0, false, 0},
                    Commit{imageEncode, false, MMAL_ENCODING_JPEG, 64, 64, true, 1},
                    Commit{imageEncode, false, unknown, 64, 64, false, 0},
                    Commit{videoEncode, true, MMAL_ENCODING_I420, 1920, 1080, true, 3133440},
                    Commit{videoEncode, true, unknown, 64, 64, false, 0},
                    Commit{videoEncode, false, MMAL_ENCODING_H264, 64, 64, true, 1},
                    Commit{videoEncode, false, unknown, 64, 64, false, 0},
                    Commit{videoDecode, true, MMAL_ENCODING_H264, 100, 50, true, 1},
                    Commit{videoDecode, true, unknown, 64, 64, false, 0},
                    Commit{videoDecode, false, MMAL_ENCODING_I420, 100, 50, true, 128 * 64 * 3 / 2},
                    Commit{videoDecode, false, unknown, 64, 64, false, 0}));

TEST(Ports, RefuseBuffersWhileDisabled) {
  Rig rig(videoEncode);
  rig.setUp(64, 48, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
  rig.makePools();
  for (int round = 0; round < 2; ++round) {
    MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(rig.outPool->queue);
    ASSERT_NE(buffer, nullptr);
    EXPECT_NE(mmal_port_send_buffer(&rig.out(), buffer), MMAL_SUCCESS);
    mmal_buffer_header_release(buffer);
    rig.enablePorts();
    EXPECT_NE(mmal_port_enable(&rig.out(), ignore), MMAL_SUCCESS) << "twice";
    EXPECT_NE(mmal_port_format_commit(&rig.out()), MMAL_SUCCESS) << "while enabled";
    rig.stop();
    EXPECT_NE(mmal_port_disable(&rig.out()), MMAL_SUCCESS) << "twice";
  }
}

TEST(Ports, NeverEnabledCanBeFlushedAndWrapperDisabled) {
  for (const char* name : {imageEncode, videoEncode, videoDecode}) {
    Rig rig(name);
    EXPECT_EQ(mmal_port_flush(&rig.out()), MMAL_SUCCESS);
    EXPECT_EQ(mmal_port_flush(&rig.in()), MMAL_SUCCESS);
    EXPECT_NE(mmal_wrapper_port_disable(&rig.out()), MMAL_SUCCESS);
    EXPECT_EQ(mmal_component_disable(rig.component), MMAL_SUCCESS);
  }
}

TEST(Ports, OfAComponentWithoutWrapperTakeTheWrappersDisable) {
  Rig rig(videoEncode);
  rig.setUp(64, 48, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
  rig.start();
  EXPECT_EQ(mmal_wrapper_port_disable(&rig.out()), MMAL_SUCCESS);
  EXPECT_EQ(rig.out().is_enabled, 0u);
  EXPECT_EQ(rig.outputsBack, static_cast<int>(rig.out().buffer_num));
}

/// What holds buffers, and how they are asked back.
struct GiveBack {
  bool enabled;  ///< the component works on them
  bool flush;    ///< else disable
};

class GivesBack : public testing::TestWithParam<GiveBack> {};

TEST_P(GivesBack, EveryBufferBeforeTheCallReturns) {
  const GiveBack& row = GetParam();
  const Bytes frame = support::padded(support::toYuv(support::scene(320, 240)));
  Rig rig(videoEncode);
  rig.setUp(320, 240, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
  rig.in().buffer_num = 6;
  rig.start();
  if (!row.enabled) mmal_component_disable(rig.component);
  for (int round = 0; round < 3; ++round) {
    rig.sendOutputs();
    for (int i = 0; i < 6; ++i) rig.feed(frame, MMAL_BUFFER_HEADER_FLAG_FRAME);
    EXPECT_EQ((row.flush ? mmal_port_flush : mmal_port_disable)(&rig.in()), MMAL_SUCCESS);
    EXPECT_EQ(mmal_queue_length(rig.inPool->queue), 6u);
    EXPECT_EQ(rig.inputsBack, (round + 1) * 6);
    EXPECT_EQ((row.flush ? mmal_port_flush : mmal_port_disable)(&rig.out()), MMAL_SUCCESS);
    while (rig.take(0, false).came) {
    }
    EXPECT_EQ(mmal_queue_length(rig.outPool->queue), rig.out().buffer_num);
    EXPECT_EQ(rig.in().is_enabled != 0, row.flush);
    if (!row.flush) rig.enablePorts();
  }
}

INSTANTIATE_TEST_SUITE_P(Ports, GivesBack,
                         testing::Values(GiveBack{true, false}, GiveBack{true, true},
                                         GiveBack{false, false}, GiveBack{false, true}));

TEST(Ports, AComponentCanGoAtAnyMoment) {
  const Bytes frame = support::padded(support::toYuv(support::scene(160, 96)));
  for (int moment = 0; moment < 40; ++moment) {
    Rig rig(videoEncode);
    rig.setUp(160, 96, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
    rig.in().buffer_num = 3;
    rig.start();
    for (int i = 0; i < moment % 4; ++i) rig.feed(frame, MMAL_BUFFER_HEADER_FLAG_FRAME);
    if (moment % 3 == 0) rig.take(moment % 5);
    if (moment % 2 != 0) mmal_component_disable(rig.component);
  }
}

TEST(Ports, MayBeFlushedFromACallback) {
  Rig rig(videoEncode);
  rig.setUp(64, 48, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
  rig.makePools();
  struct Seen {
    std::atomic<int> back{0};
    MMAL_QUEUE_T* done = mmal_queue_create();
  } seen;
  rig.in().userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(&seen);
  ASSERT_EQ(mmal_port_enable(&rig.in(),
                             [](MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
                               auto& s = *reinterpret_cast<Seen*>(port->userdata);
                               if (s.back++ == 0) mmal_port_flush(port);
                               mmal_queue_put(s.done, buffer);
                             }),
            MMAL_SUCCESS);
  mmal_component_enable(rig.component);
  rig.feed(Bytes(64 * 48 * 3 / 2), MMAL_BUFFER_HEADER_FLAG_FRAME);
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_timedwait(seen.done, patienceMs);
  ASSERT_NE(buffer, nullptr);
  mmal_buffer_header_release(buffer);
  mmal_queue_destroy(seen.done);
}

TEST(Parameters, ReadBackWhatWasSet) {
  Rig rig(videoEncode);
  std::uint32_t value = 0;
  EXPECT_EQ(mmal_port_parameter_set_uint32(&rig.out(), MMAL_PARAMETER_INTRAPERIOD, 17),
            MMAL_SUCCESS);
  EXPECT_EQ(mmal_port_parameter_get_uint32(&rig.out(), MMAL_PARAMETER_INTRAPERIOD, &value),
            MMAL_SUCCESS);
  EXPECT_EQ(value, 17u);
  MMAL_PARAMETER_VIDEO_PROFILE_T profile{
      {MMAL_PARAMETER_PROFILE, sizeof(profile)},
      {{MMAL_VIDEO_PROFILE_H264_HIGH, MMAL_VIDEO_LEVEL_H264_51}}};
  EXPECT_EQ(mmal_port_parameter_set(&rig.out(), &profile.hdr), MMAL_SUCCESS);
  profile.profile[0] = {};
  EXPECT_EQ(mmal_port_parameter_get(&rig.out(), &profile.hdr), MMAL_SUCCESS);
  EXPECT_EQ(profile.profile[0].level, MMAL_VIDEO_LEVEL_H264_51);
  profile.hdr.id = 0x2FFFF;
  EXPECT_NE(mmal_port_parameter_set(&rig.out(), &profile.hdr), MMAL_SUCCESS);
}

}  // namespace
