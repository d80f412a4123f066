// How the software platform's MMAL half ends while faults hold it up.

#include <chrono>

#include "Rig.h"
#include "support/FaultTest.h"
#include "support/VirtualTime.h"

namespace {

using namespace contract;
using namespace tessera_platform;

class Control : public support::FaultTest {
  const support::VirtualTime time_;
};

std::unique_ptr<Rig> running() {
  auto rig = std::make_unique<Rig>(videoEncode);
  rig->setUpVideo(64, 48);
  rig->start();
  return rig;
}

TEST_F(Control, LateAndLostBuffersComeBackWhenThePortIsDisabled) {
  const auto rig = running();
  support::inject(support::delay("output", 1, 150));
  ASSERT_TRUE(rig->feedScene(0));
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_CONFIG)) << "late, and in order";
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME));
  support::inject(support::delay("input", 1, 60000));
  support::inject(support::lose("output"));
  ASSERT_TRUE(rig->feedScene(1));
  EXPECT_FALSE(rig->take(100).came);
  rig->stop();
  EXPECT_EQ(rig->inputsBack, 2);
  rig->expectOutputsBack();
}

TEST_F(Control, WhatIsLateComesByTheSteadyClock) {
  using namespace std::chrono_literals;
  const auto rig = running();
  support::inject(support::delay("output", 1, 150));
  ASSERT_TRUE(rig->feedScene(0));
  support::VirtualTime::setWallClock(-30s, 50ms);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(rig->take(1000).came);
  EXPECT_EQ(std::chrono::steady_clock::now() - start, 150ms);
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

}  // namespace
