#include <tessera_platform/control.h>

#include <chrono>
#include <cstring>

#include "Rig.h"

namespace {

using namespace contract;
using namespace tessera_platform;

/// Takes every fault away and finds nothing left behind.
class Faults : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_GT(faultsHit(), 0u) << "no fault was met";
    clearFaults();
    EXPECT_TRUE(census().empty()) << tessera_platform::describe(census());
  }
};

const Bytes& frame() {
  static const Bytes bytes = support::padded(support::toYuv(support::scene(64, 48)));
  return bytes;
}

void fault(const char* completion, CompletionFault::Action action, unsigned delayMs = 0,
           std::uint32_t code = 0, bool sticky = false) {
  CompletionFault each;
  each.completion = completion;
  each.action = action;
  each.delayMs = delayMs;
  each.code = code;
  each.sticky = sticky;
  inject(each);
}

std::unique_ptr<Rig> running() {
  auto rig = std::make_unique<Rig>(videoEncode);
  rig->setUp(64, 48, MMAL_ENCODING_I420, MMAL_ENCODING_H264);
  rig->start();
  return rig;
}

TEST_F(Faults, FailingCallsDoNothing) {
  const auto rig = running();
  for (const char* name : {"mmal_port_disable", "mmal_port_flush", "mmal_component_disable",
                           "mmal_port_send_buffer", "mmal_port_format_commit"})
    inject(CallFault{name, 1, false, CallFault::Fail, MMAL_ENXIO});
  for (const char* name : {"mmal_pool_create", "mmal_queue_create", "mmal_queue_get"})
    inject(CallFault{name, 1, false, CallFault::Fail, MMAL_ENXIO});
  inject(CallFault{"mmal_component_create", 1, false, CallFault::NullResult, 0});
  EXPECT_EQ(mmal_port_disable(&rig->in()), MMAL_ENXIO);
  EXPECT_NE(rig->in().is_enabled, 0u);
  EXPECT_EQ(mmal_port_flush(&rig->out()), MMAL_ENXIO);
  EXPECT_EQ(rig->outputsBack, 0);
  EXPECT_EQ(mmal_component_disable(rig->component), MMAL_ENXIO);
  EXPECT_EQ(mmal_port_format_commit(&rig->in()), MMAL_ENXIO);
  EXPECT_EQ(mmal_pool_create(1, 1), nullptr);
  EXPECT_EQ(mmal_queue_create(), nullptr);
  EXPECT_EQ(mmal_queue_get(rig->inPool->queue), nullptr);
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(rig->inPool->queue);
  EXPECT_EQ(mmal_port_send_buffer(&rig->in(), buffer), MMAL_ENXIO);
  mmal_buffer_header_release(buffer);
  MMAL_COMPONENT_T* component = rig->component;
  EXPECT_EQ(mmal_component_create(videoEncode, &component), MMAL_SUCCESS);
  EXPECT_EQ(component, nullptr);
  EXPECT_EQ(faultsHit(), 9u);
}

TEST_F(Faults, DroppedBuffersComeBackWhenThePortIsDisabled) {
  const auto rig = running();
  fault("input", CompletionFault::Drop);
  fault("output", CompletionFault::Drop);  // the parameter sets
  ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
  const Output output = rig->take();
  EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME));
  EXPECT_EQ(rig->inputsBack, 0);
  rig->stop();
  EXPECT_EQ(rig->inputsBack, 1);
  while (rig->take(0, false).came) {
  }
  EXPECT_EQ(mmal_queue_length(rig->outPool->queue), rig->out().buffer_num);
}

TEST_F(Faults, DelayedBuffersComeLateAndInOrder) {
  const auto rig = running();
  fault("output", CompletionFault::Delay, 150);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_CONFIG));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(149));
  EXPECT_TRUE(rig->take().has(MMAL_BUFFER_HEADER_FLAG_KEYFRAME));
  // A disable does not wait for what is late.
  fault("input", CompletionFault::Delay, 60000);
  ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
  EXPECT_TRUE(rig->take().came);
  EXPECT_EQ(mmal_port_disable(&rig->in()), MMAL_SUCCESS);
  EXPECT_EQ(rig->inputsBack, 2);
}

TEST_F(Faults, DoubledCallbacksHarmNothing) {
  const auto rig = running();
  fault("input", CompletionFault::Double, 0, 0, true);
  fault("output", CompletionFault::Double, 0, 0, true);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
    ASSERT_TRUE(rig->take().came);
  }
}

TEST_F(Faults, ErrorEventsComeInsteadOfTheBuffer) {
  const auto rig = running();
  fault("output", CompletionFault::ErrorEvent, 0, MMAL_EIO);
  ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
  const Output output = rig->take();
  EXPECT_EQ(output.cmd, MMAL_EVENT_ERROR);
  MMAL_STATUS_T status;
  ASSERT_EQ(output.data.size(), sizeof(status));
  std::memcpy(&status, output.data.data(), sizeof(status));
  EXPECT_EQ(status, MMAL_EIO);
  rig->stop();
  while (rig->take(0, false).came) {
  }
  EXPECT_EQ(mmal_queue_length(rig->outPool->queue), rig->out().buffer_num);
}

TEST_F(Faults, EmptyBuffersKeepTheirMarks) {
  const auto rig = running();
  fault("output", CompletionFault::ZeroLength);
  ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
  const Output output = rig->take();
  EXPECT_TRUE(output.has(MMAL_BUFFER_HEADER_FLAG_CONFIG));
  EXPECT_TRUE(output.data.empty());
}

TEST_F(Faults, FinishFirstLetsEverythingComeBeforeTheCallReturns) {
  const auto rig = running();
  inject(CallFault{"mmal_port_send_buffer", 1, true, CallFault::FinishFirst, 0});
  for (int i = 1; i <= 5; ++i) {
    ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
    EXPECT_EQ(rig->inputsBack, i);
    if (i == 1) {
      EXPECT_TRUE(rig->take(0).has(MMAL_BUFFER_HEADER_FLAG_CONFIG));
    }
    EXPECT_TRUE(rig->take(0).came);
  }
}

TEST_F(Faults, WrapperErrorsStayInItsStatus) {
  MMAL_WRAPPER_T* wrapper = nullptr;
  ASSERT_EQ(mmal_wrapper_create(&wrapper, imageEncode), MMAL_SUCCESS);
  MMAL_PORT_T &in = *wrapper->input[0], &out = *wrapper->output[0];
  describe(in, MMAL_ENCODING_YUYV, 64, 48);
  for (MMAL_PORT_T* port : {&in, &out}) {
    ASSERT_EQ(mmal_port_format_commit(port), MMAL_SUCCESS);
    port->buffer_size = port->buffer_size_recommended;
    ASSERT_EQ(mmal_wrapper_port_enable(port, MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE), MMAL_SUCCESS);
  }
  fault("wrapper", CompletionFault::ErrorEvent, 0, MMAL_ECORRUPT);
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  ASSERT_EQ(mmal_wrapper_buffer_get_empty(&in, &buffer, 0), MMAL_SUCCESS);
  buffer->length = buffer->alloc_size;
  ASSERT_EQ(mmal_port_send_buffer(&in, buffer), MMAL_SUCCESS);
  EXPECT_EQ(mmal_wrapper_buffer_get_full(&out, &buffer, MMAL_WRAPPER_FLAG_WAIT), MMAL_ECORRUPT);
  EXPECT_EQ(wrapper->status, MMAL_ECORRUPT);
  EXPECT_EQ(mmal_wrapper_destroy(wrapper), MMAL_SUCCESS);
}

/// What a client may do wrong after a call has failed: free the pool of buffers that the component
/// still holds, or destroy the queue they wait in first or last.
TEST_F(Faults, PoolsAndQueuesMayGoInAnyOrder) {
  for (const bool working : {false, true}) {
    const auto rig = running();
    if (!working) mmal_component_disable(rig->component);
    ASSERT_TRUE(rig->feed(frame(), MMAL_BUFFER_HEADER_FLAG_FRAME));
    inject(CallFault{"mmal_port_disable", 1, false, CallFault::Fail, MMAL_ENXIO});
    EXPECT_EQ(mmal_port_disable(&rig->out()), MMAL_ENXIO);
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
