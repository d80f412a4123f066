#include "Rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace contract {
namespace {

constexpr std::chrono::seconds patience{20};

}  // namespace

void describe(MMAL_PORT_T& port, std::uint32_t encoding, int width, int height) {
  port.format->type = MMAL_ES_TYPE_VIDEO;
  port.format->encoding = encoding;
  MMAL_VIDEO_FORMAT_T& video = port.format->es->video;
  video.width = static_cast<std::uint32_t>(support::round32(width));
  video.height = static_cast<std::uint32_t>(support::round16(height));
  video.crop = {0, 0, width, height};
  video.frame_rate = {30, 1};
  video.par = {1, 1};
}

Rig::Rig(const char* name) {
  bcm_host_init();
  EXPECT_EQ(mmal_component_create(name, &component), MMAL_SUCCESS);
  in().userdata = out().userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(this);
}

Rig::~Rig() {
  stop();
  mmal_component_disable(component);
  EXPECT_EQ(mmal_component_destroy(component), MMAL_SUCCESS);
  if (inPool != nullptr) mmal_pool_destroy(inPool);
  if (outPool != nullptr) mmal_pool_destroy(outPool);
}

void Rig::setUpVideo(int width, int height) {
  describe(in(), MMAL_ENCODING_I420, width, height);
  describe(out(), MMAL_ENCODING_H264, width, height);
  for (MMAL_PORT_T* const port : {&in(), &out()}) {
    ASSERT_EQ(mmal_port_format_commit(port), MMAL_SUCCESS);
    port->buffer_num = port->buffer_num_min;
    port->buffer_size = port->buffer_size_recommended;
  }
}

void Rig::makePools() {
  inPool = mmal_pool_create(in().buffer_num, in().buffer_size);
  outPool = mmal_pool_create(out().buffer_num, out().buffer_size);
  ASSERT_NE(inPool, nullptr);
  ASSERT_NE(outPool, nullptr);
}

void Rig::enablePorts() {
  ASSERT_EQ(mmal_port_enable(&in(), onInput), MMAL_SUCCESS);
  ASSERT_EQ(mmal_port_enable(&out(), onOutput), MMAL_SUCCESS);
}

void Rig::start() {
  enablePorts();
  makePools();
  ASSERT_EQ(mmal_component_enable(component), MMAL_SUCCESS);
  sendOutputs();
}

void Rig::sendOutputs() {
  while (MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(outPool->queue))
    ASSERT_EQ(mmal_port_send_buffer(&out(), buffer), MMAL_SUCCESS);
}

void Rig::feedScene(int t) {
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ASSERT_TRUE(arrived_.wait_for(
        lock, patience, [&] { return (buffer = mmal_queue_get(inPool->queue)) != nullptr; }));
  }
  const MMAL_RECT_T& crop = in().format->es->video.crop;
  const support::Bytes frame =
      support::padded(support::toYuv(support::scene(crop.width, crop.height, t)));
  std::copy(frame.begin(), frame.end(), buffer->data);
  buffer->length = static_cast<std::uint32_t>(frame.size());
  buffer->flags = MMAL_BUFFER_HEADER_FLAG_FRAME;
  buffer->pts = t;
  EXPECT_EQ(mmal_port_send_buffer(&in(), buffer), MMAL_SUCCESS);
}

Output Rig::take() {
  Output output;
  std::unique_lock<std::mutex> lock(mutex_);
  EXPECT_TRUE(arrived_.wait_for(lock, patience, [this] { return !filled_.empty(); }));
  if (!filled_.empty()) {
    output = filled_.front();
    filled_.pop_front();
  }
  lock.unlock();
  sendOutputs();
  return output;
}

void Rig::expectAll(MMAL_POOL_T& pool) {
  std::vector<MMAL_BUFFER_HEADER_T*> there;
  while (MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool.queue)) there.push_back(buffer);
  EXPECT_EQ(there.size(), pool.headers_num);
  for (MMAL_BUFFER_HEADER_T* const buffer : there) mmal_buffer_header_release(buffer);
}

void Rig::expectInputsBack(unsigned times) {
  expectAll(*inPool);
  EXPECT_EQ(inputsBack_, times);
}

void Rig::expectOutputsBack() {
  expectAll(*outPool);
}

void Rig::stop() {
  if (in().is_enabled != 0) {
    EXPECT_EQ(mmal_port_disable(&in()), MMAL_SUCCESS);
  }
  EXPECT_EQ(mmal_port_flush(&out()), MMAL_SUCCESS);
  if (out().is_enabled != 0) {
    EXPECT_EQ(mmal_port_disable(&out()), MMAL_SUCCESS);
  }
}

void Rig::note() {
  const std::thread::id here = std::this_thread::get_id();
  EXPECT_NE(here, caller_) << "from inside the client's own call";
  EXPECT_TRUE(worker_ == std::thread::id() || worker_ == here) << "on several threads";
  worker_ = here;
}

void Rig::onInput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  auto& rig = *reinterpret_cast<Rig*>(port->userdata);
  const std::lock_guard<std::mutex> lock(rig.mutex_);
  rig.note();
  ++rig.inputsBack_;
  mmal_buffer_header_release(buffer);
  rig.arrived_.notify_one();
}

void Rig::onOutput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  auto& rig = *reinterpret_cast<Rig*>(port->userdata);
  const std::lock_guard<std::mutex> lock(rig.mutex_);
  rig.note();
  // What a flush gives back unused is empty and bears no mark.
  if (buffer->length != 0 || buffer->flags != 0)
    rig.filled_.push_back({buffer->length, buffer->flags, buffer->pts});
  mmal_buffer_header_release(buffer);
  rig.arrived_.notify_one();
}

}  // namespace contract
