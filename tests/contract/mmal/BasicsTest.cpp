#include "Rig.h"

namespace {

using namespace contract;

TEST(Pools, GetAHeaderBackWithItsLastReferenceAndHandOutTheOldest) {
  MMAL_POOL_T* const pool = mmal_pool_create(2, 100);
  MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(pool->queue);
  EXPECT_GE(buffer->alloc_size, 100u);
  ASSERT_NE(buffer->data, nullptr);
  mmal_buffer_header_acquire(buffer);
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 1u);
  mmal_buffer_header_release(buffer);
  EXPECT_EQ(mmal_queue_length(pool->queue), 2u);
  EXPECT_NE(mmal_queue_get(pool->queue), buffer);
  EXPECT_EQ(mmal_queue_get(pool->queue), buffer);
  EXPECT_EQ(mmal_queue_get(pool->queue), nullptr);
  mmal_pool_destroy(pool);
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
