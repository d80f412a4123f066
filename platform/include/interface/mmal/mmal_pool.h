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

/// Makes `headers` headers with payloads of payload_size bytes each (0: no payloads) and puts them
/// all into the pool's queue. @return null without memory
MMAL_API MMAL_POOL_T* mmal_pool_create(unsigned int headers, uint32_t payload_size);

/// Frees headers, payloads and queue. All headers must have come back from the components; ones
/// that wait in a queue of the client's are no longer valid. Null is allowed.
MMAL_API void mmal_pool_destroy(MMAL_POOL_T* pool);

/// A pool keeps the size that it was made with: MMAL_ENOSYS.
MMAL_API MMAL_STATUS_T mmal_pool_resize(MMAL_POOL_T* pool, unsigned int headers,
                                        uint32_t payload_size);

/// Called when a header comes back to the pool.
/// @return MMAL_TRUE to put it into the pool's queue, MMAL_FALSE when the callback has taken it
typedef MMAL_BOOL_T (*MMAL_POOL_BH_CB_T)(MMAL_POOL_T* pool, MMAL_BUFFER_HEADER_T* buffer,
                                         void* userdata);

/// Sets (or with null takes away) the pool's callback.
MMAL_API void mmal_pool_callback_set(MMAL_POOL_T* pool, MMAL_POOL_BH_CB_T cb, void* userdata);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_POOL_H
