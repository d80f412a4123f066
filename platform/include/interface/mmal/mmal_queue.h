#ifndef MMAL_QUEUE_H
#define MMAL_QUEUE_H

#include "interface/mmal/mmal_buffer.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A first-in-first-out list of buffer headers, linked through them: a put never allocates. Every
/// call may come from any thread.
typedef struct MMAL_QUEUE_T MMAL_QUEUE_T;

/// A new empty queue, or null without memory.
MMAL_API MMAL_QUEUE_T* mmal_queue_create(void);

/// Appends a header. One that is in a queue already, and null, are ignored.
MMAL_API void mmal_queue_put(MMAL_QUEUE_T* queue, MMAL_BUFFER_HEADER_T* buffer);

/// Puts a header back at the front: the next get takes it.
MMAL_API void mmal_queue_put_back(MMAL_QUEUE_T* queue, MMAL_BUFFER_HEADER_T* buffer);

/// Takes the oldest header. @return null when there is none
MMAL_API MMAL_BUFFER_HEADER_T* mmal_queue_get(MMAL_QUEUE_T* queue);

/// The same, but waits for one, without a limit.
MMAL_API MMAL_BUFFER_HEADER_T* mmal_queue_wait(MMAL_QUEUE_T* queue);

/// The same, but waits at most `timeout` milliseconds. @return null when none came
MMAL_API MMAL_BUFFER_HEADER_T* mmal_queue_timedwait(MMAL_QUEUE_T* queue, VCOS_UNSIGNED timeout);

/// How many headers there are now.
MMAL_API unsigned int mmal_queue_length(MMAL_QUEUE_T* queue);

/// Destroys a queue; headers that are in it stay with their pools, but are not given back to them.
MMAL_API void mmal_queue_destroy(MMAL_QUEUE_T* queue);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_QUEUE_H
