#include <chrono>

#include "Rig.h"

namespace {

using namespace contract;

template <auto destroy>
struct With {
  template <typename Object>
  void operator()(Object* object) const {
    destroy(object);
  }
};
using QueuePtr = std::unique_ptr<MMAL_QUEUE_T, With<mmal_queue_destroy>>;
using PoolPtr = std::unique_ptr<MMAL_POOL_T, With<mmal_pool_destroy>>;
using FormatPtr = std::unique_ptr<MMAL_ES_FORMAT_T, With<mmal_format_free>>;

TEST(Queues, AreFirstInFirstOutAndTakeBackAtTheFront) {
  const PoolPtr pool(mmal_pool_create(3, 16));
  const QueuePtr queue(mmal_queue_create());
  MMAL_BUFFER_HEADER_T* buffers[3];
  for (auto& buffer : buffers) buffer = mmal_queue_get(pool->queue);
  EXPECT_EQ(mmal_queue_get(pool->queue), nullptr);
  mmal_queue_put(queue.get(), buffers[0]);
  mmal_queue_put(queue.get(), buffers[1]);
  mmal_queue_put_back(queue.get(), buffers[2]);
  EXPECT_EQ(mmal_queue_length(queue.get()), 3u);
  for (const int each : {2, 0, 1}) EXPECT_EQ(mmal_queue_get(queue.get()), buffers[each]);
  for (auto* buffer : buffers) mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 3u);
}

TEST(Queues, WaitForWhatAnotherThreadPuts) {
  const PoolPtr pool(mmal_pool_create(1, 16));
  const QueuePtr queue(mmal_queue_create());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(mmal_queue_timedwait(queue.get(), 60), nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(59));
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool->queue);
  std::thread putter([&] { mmal_queue_put(queue.get(), buffer); });
  EXPECT_EQ(mmal_queue_wait(queue.get()), buffer);
  putter.join();
  mmal_buffer_header_release(buffer);
}

TEST(Pools, GetAHeaderBackWithItsLastReference) {
  const PoolPtr pool(mmal_pool_create(2, 100));
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool->queue);
  EXPECT_GE(buffer->alloc_size, 100u);
  ASSERT_NE(buffer->data, nullptr);
  mmal_buffer_header_acquire(buffer);
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 1u);
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 2u);
  EXPECT_EQ(mmal_pool_resize(pool.get(), 5, 200), MMAL_SUCCESS);
  EXPECT_EQ(mmal_queue_length(pool->queue), 5u);
  EXPECT_GE(pool->header[4]->alloc_size, 200u);
}

TEST(Pools, AskTheirCallbackWhetherToKeepAHeader) {
  const PoolPtr pool(mmal_pool_create(1, 16));
  MMAL_BOOL_T keep = MMAL_FALSE;
  mmal_pool_callback_set(
      pool.get(),
      [](MMAL_POOL_T*, MMAL_BUFFER_HEADER_T*, void* answer) {
        return *static_cast<MMAL_BOOL_T*>(answer);
      },
      &keep);
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool->queue);
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 0u) << "the callback took it";
  keep = MMAL_TRUE;
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 1u);
}

TEST(Headers, ShareAPayloadUntilReleased) {
  const PoolPtr full(mmal_pool_create(1, 32)), bare(mmal_pool_create(1, 0));
  MMAL_BUFFER_HEADER_T* const source = mmal_queue_get(full->queue);
  MMAL_BUFFER_HEADER_T* const copy = mmal_queue_get(bare->queue);
  source->length = 7;
  source->pts = 40;
  ASSERT_EQ(mmal_buffer_header_replicate(copy, source), MMAL_SUCCESS);
  EXPECT_EQ(copy->data, source->data);
  EXPECT_EQ(copy->length, 7u);
  EXPECT_EQ(copy->pts, 40);
  mmal_buffer_header_release(source);
  EXPECT_EQ(mmal_queue_length(full->queue), 0u) << "the copy holds it";
  mmal_buffer_header_release(copy);
  EXPECT_EQ(mmal_queue_length(full->queue), 1u);
  EXPECT_EQ(mmal_queue_length(bare->queue), 1u);
}

TEST(Formats, CopyWithAndWithoutExtraData) {
  const FormatPtr source(mmal_format_alloc()), copy(mmal_format_alloc());
  source->type = MMAL_ES_TYPE_VIDEO;
  source->encoding = MMAL_ENCODING_H264;
  source->es->video.width = 640;
  source->bitrate = 9;
  ASSERT_EQ(mmal_format_extradata_alloc(source.get(), 3), MMAL_SUCCESS);
  source->extradata[2] = 5;
  source->extradata_size = 3;
  mmal_format_copy(copy.get(), source.get());
  EXPECT_EQ(copy->extradata_size, 0u);
  EXPECT_EQ(mmal_format_compare(copy.get(), source.get()),
            static_cast<std::uint32_t>(MMAL_ES_FORMAT_COMPARE_FLAG_EXTRADATA));
  ASSERT_EQ(mmal_format_full_copy(copy.get(), source.get()), MMAL_SUCCESS);
  EXPECT_EQ(copy->extradata[2], 5);
  EXPECT_EQ(mmal_format_compare(copy.get(), source.get()), 0u);
}

TEST(Components, UnknownNamesAreRefused) {
  MMAL_COMPONENT_T* component = nullptr;
  EXPECT_NE(mmal_component_create("vc.ril.nothing_at_all", &component), MMAL_SUCCESS);
  EXPECT_EQ(component, nullptr);
  MMAL_WRAPPER_T* wrapper = nullptr;
  EXPECT_NE(mmal_wrapper_create(&wrapper, "vc.ril.nothing_at_all"), MMAL_SUCCESS);
}

TEST(Components, GoWithTheirLastReference) {
  for (const char* name : {imageEncode, videoEncode, videoDecode}) {
    MMAL_COMPONENT_T* component = nullptr;
    ASSERT_EQ(mmal_component_create(name, &component), MMAL_SUCCESS) << name;
    ASSERT_GE(component->input_num, 1u);
    ASSERT_GE(component->output_num, 1u);
    EXPECT_EQ(component->input[0]->type, MMAL_PORT_TYPE_INPUT);
    EXPECT_EQ(component->output[0]->is_enabled, 0u);
    mmal_component_acquire(component);
    EXPECT_EQ(mmal_component_destroy(component), MMAL_SUCCESS);
    EXPECT_EQ(mmal_component_enable(component), MMAL_SUCCESS) << "still there";
    EXPECT_EQ(mmal_component_release(component), MMAL_SUCCESS);
  }
}

}  // namespace
