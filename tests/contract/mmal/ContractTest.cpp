// Ports, their formats and their buffers.

#include <bcm_host.h>
#include <gtest/gtest.h>
#include <interface/mmal/mmal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "support/H264Oracle.h"

namespace {

constexpr char imageEncode[] = "vc.ril.image_encode";
constexpr char videoEncode[] = "vc.ril.video_encode";
constexpr char videoDecode[] = "vc.ril.video_decode";

/// The format of a picture in the padded layout.
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

/// A component driven as the library drives it: port callbacks, and a pool a port. Goes down in the
/// library's order too.
class Rig {
 public:
  explicit Rig(const char* name) {
    bcm_host_init();
    EXPECT_EQ(mmal_component_create(name, &component), MMAL_SUCCESS);
    in().userdata = out().userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(this);
  }
  ~Rig() {
    disablePorts();
    mmal_component_disable(component);
    EXPECT_EQ(mmal_component_destroy(component), MMAL_SUCCESS);
    if (inPool != nullptr) mmal_pool_destroy(inPool);
    if (outPool != nullptr) mmal_pool_destroy(outPool);
  }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  MMAL_PORT_T& in() { return *component->input[0]; }
  MMAL_PORT_T& out() { return *component->output[0]; }

  /// Sets both ports up, and makes their pools.
  void setUp(std::uint32_t from, std::uint32_t to, int width, int height, unsigned buffers) {
    describe(in(), from, width, height);
    describe(out(), to, width, height);
    for (MMAL_PORT_T* const port : {&in(), &out()}) {
      ASSERT_EQ(mmal_port_format_commit(port), MMAL_SUCCESS);
      port->buffer_num = buffers;
      port->buffer_size = port->buffer_size_recommended;
      (port == &in() ? inPool : outPool) = mmal_pool_create(buffers, port->buffer_size);
    }
    ASSERT_TRUE(inPool != nullptr && outPool != nullptr);
  }
  void enablePorts() {
    ASSERT_EQ(mmal_port_enable(&in(), onBuffer), MMAL_SUCCESS);
    ASSERT_EQ(mmal_port_enable(&out(), onBuffer), MMAL_SUCCESS);
  }
  void disablePorts() {
    for (MMAL_PORT_T* const port : {&in(), &out()})
      if (port->is_enabled != 0) {
        EXPECT_EQ(mmal_port_disable(port), MMAL_SUCCESS);
      }
  }
  /// Sends all buffers of a port, with grey frames where it is an input.
  void send(MMAL_PORT_T& port, MMAL_POOL_T& pool) {
    for (unsigned i = 0; i < pool.headers_num; ++i) {
      MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool.queue);
      ASSERT_NE(buffer, nullptr);
      std::fill_n(buffer->data, buffer->alloc_size, std::uint8_t{128});
      buffer->length = buffer->alloc_size;
      buffer->flags = MMAL_BUFFER_HEADER_FLAG_FRAME;
      EXPECT_EQ(mmal_port_send_buffer(&port, buffer), MMAL_SUCCESS);
    }
  }

  static void onBuffer(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
    auto& rig = *reinterpret_cast<Rig*>(port->userdata);
    const std::thread::id here = std::this_thread::get_id();
    EXPECT_NE(here, rig.caller_) << "from inside the client's own call";
    EXPECT_TRUE(rig.worker_ == std::thread::id() || rig.worker_ == here) << "on several threads";
    rig.worker_ = here;
    if (port == &rig.in()) ++rig.inputsBack;
    if (buffer->cmd == MMAL_EVENT_FORMAT_CHANGED) rig.changed.set_value(buffer->length);
    mmal_buffer_header_release(buffer);
  }

  MMAL_COMPONENT_T* component = nullptr;
  MMAL_POOL_T* inPool = nullptr;
  MMAL_POOL_T* outPool = nullptr;
  std::atomic<unsigned> inputsBack{0};
  std::promise<std::uint32_t> changed;  ///< bytes of an event that tells of another format

 private:
  const std::thread::id caller_ = std::this_thread::get_id();
  std::thread::id worker_;
};

/// Expects that every buffer is in its pool.
void expectAll(MMAL_POOL_T& pool) {
  std::vector<MMAL_BUFFER_HEADER_T*> there;
  while (MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool.queue)) there.push_back(buffer);
  EXPECT_EQ(there.size(), pool.headers_num);
  for (MMAL_BUFFER_HEADER_T* const buffer : there) mmal_buffer_header_release(buffer);
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
  rig.setUp(MMAL_ENCODING_I420, MMAL_ENCODING_H264, 64, 48, 2);
  for (int round = 0; round < 2; ++round) {
    MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(rig.outPool->queue);
    ASSERT_NE(buffer, nullptr);
    EXPECT_NE(mmal_port_send_buffer(&rig.out(), buffer), MMAL_SUCCESS);
    mmal_buffer_header_release(buffer);
    rig.enablePorts();
    EXPECT_NE(mmal_port_enable(&rig.out(), Rig::onBuffer), MMAL_SUCCESS) << "twice";
    EXPECT_NE(mmal_port_format_commit(&rig.out()), MMAL_SUCCESS) << "while enabled";
    rig.disablePorts();
    EXPECT_NE(mmal_port_disable(&rig.out()), MMAL_SUCCESS) << "twice";
  }
}

/// Whether the component works on the buffers, and whether they are flushed or the port disabled.
class GivesBack : public testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(GivesBack, EveryBufferBeforeTheCallReturns) {
  const auto [works, flush] = GetParam();
  const auto askBack = flush ? mmal_port_flush : mmal_port_disable;
  constexpr unsigned buffers = 6;
  Rig rig(videoEncode);
  rig.setUp(MMAL_ENCODING_I420, MMAL_ENCODING_H264, 320, 240, buffers);
  rig.enablePorts();
  if (works) mmal_component_enable(rig.component);
  for (unsigned round = 1; round <= 3; ++round) {
    rig.send(rig.out(), *rig.outPool);
    rig.send(rig.in(), *rig.inPool);
    EXPECT_EQ(askBack(&rig.in()), MMAL_SUCCESS);
    expectAll(*rig.inPool);
    EXPECT_EQ(rig.inputsBack, round * buffers);
    EXPECT_EQ(askBack(&rig.out()), MMAL_SUCCESS);
    expectAll(*rig.outPool);
    EXPECT_EQ(rig.in().is_enabled != 0, flush);
    if (!flush) rig.enablePorts();
  }
}

INSTANTIATE_TEST_SUITE_P(Ports, GivesBack, testing::Combine(testing::Bool(), testing::Bool()));

TEST(Decoding, TellsOfAnotherSize) {
  const support::Bytes stream = support::encodeH264({160, 96, 1}).stream;
  Rig rig(videoDecode);
  rig.setUp(MMAL_ENCODING_H264, MMAL_ENCODING_I420, 96, 64, 4);
  rig.enablePorts();
  mmal_component_enable(rig.component);
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(rig.inPool->queue);
  ASSERT_GE(buffer->alloc_size, stream.size());
  std::copy(stream.begin(), stream.end(), buffer->data);
  buffer->length = static_cast<std::uint32_t>(stream.size());
  buffer->flags = MMAL_BUFFER_HEADER_FLAG_FRAME;
  ASSERT_EQ(mmal_port_send_buffer(&rig.in(), buffer), MMAL_SUCCESS);
  auto changed = rig.changed.get_future();
  ASSERT_EQ(changed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_GE(changed.get(), sizeof(MMAL_EVENT_FORMAT_CHANGED_T));
}

}  // namespace
