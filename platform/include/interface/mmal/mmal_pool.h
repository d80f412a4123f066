#ifndef MMAL_POOL_H
#define MMAL_POOL_H

#include "interface/mmal/mmal_buffer.h"
#include "interface/mmal/mmal_queue.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A fixed number of buffer headers with payloads, and the queue that holds the free ones.
typedef struct MMAL_POOL_T {
  MMAL_QUEUE_T* queue;
  uint32_t headers_num;
  MMAL_BUFFER_HEADER_T** header;
} MMAL_POOL_T;

/// Where payloads come from and go to.
typedef void* (*mmal_pool_allocator_alloc_t)(void* context, uint32_t size);
typedef void (*mmal_pool_allocator_free_t)(void* context, void* mem);

/// Makes `headers` headers with payloads of payload_size bytes each (0: no payloads) and puts them
/// all into the pool's queue. @return null without memory
MMAL_API MMAL_POOL_T* mmal_pool_create(unsigned int headers, uint32_t payload_size);

/// The same with the caller's own payload memory.
MMAL_API MMAL_POOL_T* mmal_pool_create_with_allocator(unsigned int headers, uint32_t payload_size,
                                                      void* allocator_context,
                                                      mmal_pool_allocator_alloc_t allocator_alloc,
                                                      mmal_pool_allocator_free_t allocator_free);

/// Frees headers, payloads and queue. All headers must have come back from the components; ones
/// that wait in a queue of the client's are no longer valid. Null is allowed.
MMAL_API void mmal_pool_destroy(MMAL_POOL_T* pool);

/// Another number of headers or another payload size. Every header must be in the pool's queue.
/// @return MMAL_EINVAL when one is not, MMAL_ENOMEM without memory (the pool is as it was)
MMAL_API MMAL_STATUS_T mmal_pool_resize(MMAL_POOL_T* pool, unsigned int headers,
                                        uint32_t payload_size);

/// Called when a header comes back to the pool.
/// @return MMAL_TRUE to put it into the pool's queue, MMAL_FALSE when the callback has taken it
typedef MMAL_BOOL_T (*MMAL_POOL_BH_CB_T)(MMAL_POOL_T* pool, MMAL_BUFFER_HEADER_T* buffer,
                                         void* userdata);

/// Sets (or with null takes away) the pool's callback.
MMAL_API void mmal_pool_callback_set(MMAL_POOL_T* pool, MMAL_POOL_BH_CB_T cb, void* userdata);

/// Sets a pre-release callback on every header of the pool.
MMAL_API void mmal_pool_pre_release_callback_set(MMAL_POOL_T* pool, MMAL_BH_PRE_RELEASE_CB_T cb,
                                                 void* userdata);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_POOL_H
