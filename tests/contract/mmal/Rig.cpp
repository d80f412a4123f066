#include "Rig.h"

#include <algorithm>
#include <cstring>

namespace contract {

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
  filled = mmal_queue_create();
  in().userdata = out().userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(this);
}

Rig::~Rig() {
  stop();
  mmal_component_disable(component);
  EXPECT_EQ(mmal_component_destroy(component), MMAL_SUCCESS);
  mmal_queue_destroy(filled);
  if (inPool != nullptr) mmal_pool_destroy(inPool);
  if (outPool != nullptr) mmal_pool_destroy(outPool);
  EXPECT_FALSE(onCaller) << "a callback came from inside the client's own call";
  EXPECT_LE(threads.size(), 1u) << "callbacks of one component came on several threads";
}

void Rig::setUp(int width, int height, std::uint32_t inEncoding, std::uint32_t outEncoding,
                std::uint32_t bitrate) {
  describe(in(), inEncoding, width, height);
  ASSERT_EQ(mmal_port_format_commit(&in()), MMAL_SUCCESS);
  in().buffer_num = in().buffer_num_min;
  in().buffer_size = std::max(in().buffer_size_recommended, in().buffer_size_min);
  describe(out(), outEncoding, width, height);
  out().format->bitrate = bitrate;
  ASSERT_EQ(mmal_port_format_commit(&out()), MMAL_SUCCESS);
  out().buffer_num = out().buffer_num_min;
  out().buffer_size = out().buffer_size_recommended;
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

void Rig::start(int outputs) {
  enablePorts();
  makePools();
  ASSERT_EQ(mmal_component_enable(component), MMAL_SUCCESS);
  sendOutputs(outputs);
}

void Rig::sendOutputs(int count) {
  for (; count != 0; --count) {
    MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(outPool->queue);
    if (buffer == nullptr) return;
    ASSERT_EQ(mmal_port_send_buffer(&out(), buffer), MMAL_SUCCESS);
  }
}

bool Rig::feed(const Bytes& data, std::uint32_t flags, std::int64_t pts, unsigned limitMs) {
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_timedwait(inPool->queue, limitMs);
  if (buffer == nullptr) return false;
  EXPECT_LE(data.size(), buffer->alloc_size);
  if (!data.empty()) std::memcpy(buffer->data, data.data(), data.size());
  buffer->length = static_cast<std::uint32_t>(data.size());
  buffer->flags = flags;
  buffer->pts = pts;
  EXPECT_EQ(mmal_port_send_buffer(&in(), buffer), MMAL_SUCCESS);
  return true;
}

bool Rig::feedScene(int t, unsigned limitMs) {
  const MMAL_RECT_T& crop = in().format->es->video.crop;
  const support::Image scene = support::scene(crop.width, crop.height, t);
  return feed(support::padded(support::toYuv(scene)), MMAL_BUFFER_HEADER_FLAG_FRAME, t * 40000,
              limitMs);
}

void Rig::expectOutputsBack() {
  while (take(0, false).came) {
  }
  EXPECT_EQ(mmal_queue_length(outPool->queue), out().buffer_num);
}

Output Rig::take(unsigned limitMs, bool recycle) {
  Output output;
  while (MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_timedwait(filled, limitMs)) {
    // What a flush gives back unused is empty and bears no mark.
    output.came = buffer->length != 0 || buffer->flags != 0;
    output.cmd = buffer->cmd;
    output.flags = buffer->flags;
    output.pts = buffer->pts;
    output.data.assign(buffer->data, buffer->data + buffer->length);
    mmal_buffer_header_release(buffer);
    if (output.came) break;
  }
  if (recycle) sendOutputs();
  return output;
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
  if (std::this_thread::get_id() == caller_) onCaller = true;
  threads.insert(std::this_thread::get_id());
}

void Rig::onInput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  auto& rig = *reinterpret_cast<Rig*>(port->userdata);
  rig.note();
  mmal_buffer_header_release(buffer);
  ++rig.inputsBack;
}

void Rig::onOutput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  auto& rig = *reinterpret_cast<Rig*>(port->userdata);
  rig.note();
  ++rig.outputsBack;
  mmal_queue_put(rig.filled, buffer);
}

}  // namespace contract
