// What the software platform adds: the journal, the faults and the census of its MMAL half.

#include <algorithm>
#include <chrono>

#include "Rig.h"
#include "support/FaultTest.h"

namespace {

using namespace contract;
using namespace tessera_platform;

class Control : public support::FaultTest {
  const support::VirtualTime time_;
};

std::unique_ptr<Rig> running(int width = 64, int height = 48) {
  auto rig = std::make_unique<Rig>(videoEncode);
  rig->setUpVideo(width, height);
  rig->start();
  return rig;
}

TEST_F(Control, LateAndLostBuffersComeBackWhenThePortIsDisabled) {
  const auto rig = running();
  support::inject(support::delay("output", 1, 150));
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(rig->feedScene(0));
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) << "late, and in order";
  EXPECT_EQ(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME));
  support::inject(support::delay("input", 1, 60000));
  support::inject(support::lose("output"));
  ASSERT_TRUE(rig->feedScene(1));
  EXPECT_FALSE(rig->take(100).came);
  rig->stop();
  EXPECT_EQ(rig->inputsBack, 2);
  rig->expectOutputsBack();
}

TEST_F(Control, BuffersAreEmptiedOrReplacedByErrorEvents) {
  const auto rig = running();
  support::inject(support::mangle("output", CompletionFault::ZeroLength));
  ASSERT_TRUE(rig->feedScene(0));
  Output output = rig->take();
  EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) << "the marks stay";
  EXPECT_TRUE(output.data.empty());
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME));
  clearFaults();
  support::inject(support::mangle("output", CompletionFault::ErrorEvent, 1, MMAL_EIO));
  ASSERT_TRUE(rig->feedScene(1));
  output = rig->take();
  EXPECT_EQ(output.cmd, MMAL_EVENT_ERROR);
  const auto status = static_cast<std::uint8_t>(MMAL_EIO);
  EXPECT_EQ(output.data, (Bytes{status, 0, 0, 0}));
  rig->stop();
  rig->expectOutputsBack();
}

/// What a client may do wrong after a call has failed: free the pool of buffers that the component
/// still holds, or destroy the queue they wait in first or last.
TEST_F(Control, PoolsAndQueuesMayGoInAnyOrder) {
  for (const bool working : {false, true}) {
    const auto rig = running();
    if (!working) mmal_component_disable(rig->component);
    ASSERT_TRUE(rig->feedScene(0));
    support::inject(support::refuse("mmal_port_disable"));
    EXPECT_EQ(mmal_port_disable(&rig->out()), 7u);
    mmal_pool_destroy(rig->inPool);
    mmal_pool_destroy(rig->outPool);
    rig->inPool = rig->outPool = nullptr;
    EXPECT_EQ(mmal_queue_length(rig->filled), 0u);
  }
  MMAL_POOL_T* const pool = mmal_pool_create(1, 1);
  MMAL_QUEUE_T* const queue = mmal_queue_create();
  mmal_queue_put(queue, mmal_queue_get(pool->queue));
  mmal_pool_destroy(pool);
  EXPECT_EQ(mmal_queue_get(queue), nullptr);
  mmal_queue_destroy(queue);
}

TEST_F(Control, JournalTellsFormatsBuffersAndResultsAlikeInEveryRun) {
  std::vector<std::string> first;
  for (int run = 0; run < 10; ++run) {
    startJournal();
    {
      const auto rig = running(100, 50);
      rig->feedScene(0);
      rig->take();
      rig->take();
    }
    stopJournal();
    const auto calls = journal(Lines::Calls);
    if (run == 0) first = calls;
    EXPECT_EQ(calls, first);
    EXPECT_EQ(journal(Lines::Completions)[0],
              "-> input(video_encode#1:in0, 12288 bytes FRAME_START|FRAME_END pts 0)");
  }
  for (const char* expected :
       {"mmal_component_create(vc.ril.video_encode) = SUCCESS",
        "mmal_port_format_commit(video_encode#1:in0, I420 128x64 crop 0,0 100x50 rate 30/1 "
        "aspect 1/1) = SUCCESS",
        "mmal_pool_create(1 x 12288) = pool#1",
        "mmal_port_send_buffer(video_encode#1:in0, 12288 bytes FRAME_START|FRAME_END pts 0) = "
        "SUCCESS",
        "mmal_component_destroy(video_encode#1) = SUCCESS"})
    EXPECT_EQ(std::count(first.begin(), first.end(), expected), 1) << expected;
}

}  // namespace
