#include <tessera_platform/control.h>

#include <algorithm>

#include "Rig.h"

namespace {

using namespace contract;
namespace control = tessera_platform;

std::vector<std::string> conversation(control::Lines which) {
  control::startJournal();
  {
    Rig rig(videoEncode);
    rig.setUp(100, 50, MMAL_ENCODING_I420, MMAL_ENCODING_H264, 500000);
    rig.start();
    for (int t = 0; t < 3; ++t) {
      rig.feed(support::padded(support::toYuv(support::scene(100, 50, t))),
               MMAL_BUFFER_HEADER_FLAG_FRAME);
      if (t == 0) rig.take();
      rig.take();
    }
  }
  control::stopJournal();
  return control::journal(which);
}

TEST(Journal, OfCallsIsTheSameFromRunToRun) {
  const auto first = conversation(control::Lines::Calls);
  for (int run = 0; run < 10; ++run) EXPECT_EQ(conversation(control::Lines::Calls), first);
  EXPECT_TRUE(control::census().empty()) << control::describe(control::census());
}

TEST(Journal, TellsFormatsBuffersAndResults) {
  const auto lines = conversation(control::Lines::Calls);
  for (const char* expected :
       {"mmal_component_create(vc.ril.video_encode) = SUCCESS",
        "mmal_port_format_commit(video_encode#1:in0, I420 128x64 crop 0,0 100x50 rate 30/1 "
        "aspect 1/1) = SUCCESS",
        "mmal_pool_create(1 x 12288) = pool#1",
        "mmal_port_send_buffer(video_encode#1:in0, 12288 bytes FRAME_START|FRAME_END) = SUCCESS",
        "mmal_component_destroy(video_encode#1) = SUCCESS"})
    EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end()) << expected;
  const auto completions = conversation(control::Lines::Completions);
  EXPECT_EQ(completions[0], "-> input(video_encode#1:in0, 12288 bytes FRAME_START|FRAME_END)");
  EXPECT_NE(completions[1].find("FRAME_START|FRAME_END|CONFIG)"), std::string::npos);
}

TEST(Census, CountsWhatIsAlive) {
  {
    Rig rig(videoDecode);
    rig.setUp(64, 48, MMAL_ENCODING_H264, MMAL_ENCODING_I420);
    rig.start();
    const control::Census now = control::census();
    EXPECT_EQ(now.components, 1);
    EXPECT_EQ(now.threads, 1);
    EXPECT_EQ(now.enabledPorts, 2);
    EXPECT_EQ(now.pools, 2);
    EXPECT_EQ(now.queues, 1);
    EXPECT_EQ(now.buffers, static_cast<int>(rig.in().buffer_num + rig.out().buffer_num));
  }
  MMAL_WRAPPER_T* wrapper = nullptr;
  ASSERT_EQ(mmal_wrapper_create(&wrapper, imageEncode), MMAL_SUCCESS);
  EXPECT_EQ(control::census().wrappers, 1);
  mmal_wrapper_destroy(wrapper);
  EXPECT_TRUE(control::census().empty()) << control::describe(control::census());
}

}  // namespace
