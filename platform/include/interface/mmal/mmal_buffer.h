#ifndef MMAL_BUFFER_H
#define MMAL_BUFFER_H

#include "interface/mmal/mmal_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Layout of a picture, for components that tell it buffer by buffer.
typedef struct {
  uint32_t planes;
  uint32_t offset[4];  ///< bytes from the start of the payload to each plane
  uint32_t pitch[4];   ///< bytes from row to row
  uint32_t flags;
} MMAL_BUFFER_HEADER_VIDEO_SPECIFIC_T;

typedef union {
  MMAL_BUFFER_HEADER_VIDEO_SPECIFIC_T video;
} MMAL_BUFFER_HEADER_TYPE_SPECIFIC_T;

/// What travels between client and component: a payload with its description. The header belongs
/// to the pool it came from (event buffers: to the component) and is counted: it goes back when the
/// last reference is released.
typedef struct MMAL_BUFFER_HEADER_T {
  struct MMAL_BUFFER_HEADER_T* next;          ///< the queue's own
  struct MMAL_BUFFER_HEADER_PRIVATE_T* priv;  ///< the platform's own
  uint32_t cmd;                               ///< 0 for data, else an MMAL_EVENT_* code
  uint8_t* data;                              ///< start of the payload
  uint32_t alloc_size;                        ///< bytes there are
  uint32_t length;                            ///< bytes in use, counted from offset
  uint32_t offset;                            ///< where they start
  uint32_t flags;                             ///< MMAL_BUFFER_HEADER_FLAG_*
  int64_t pts;                                ///< microseconds, or MMAL_TIME_UNKNOWN
  int64_t dts;                                ///< microseconds, or MMAL_TIME_UNKNOWN
  MMAL_BUFFER_HEADER_TYPE_SPECIFIC_T* type;   ///< details of the payload's type
  void* user_data;                            ///< the client's own
} MMAL_BUFFER_HEADER_T;

#define MMAL_BUFFER_HEADER_FLAG_EOS (1 << 0)  ///< the last of the stream
#define MMAL_BUFFER_HEADER_FLAG_FRAME_START (1 << 1)
#define MMAL_BUFFER_HEADER_FLAG_FRAME_END (1 << 2)
#define MMAL_BUFFER_HEADER_FLAG_FRAME \
  (MMAL_BUFFER_HEADER_FLAG_FRAME_START | MMAL_BUFFER_HEADER_FLAG_FRAME_END)
#define MMAL_BUFFER_HEADER_FLAG_KEYFRAME (1 << 3)
#define MMAL_BUFFER_HEADER_FLAG_DISCONTINUITY (1 << 4)  ///< does not follow on what came before
#define MMAL_BUFFER_HEADER_FLAG_CONFIG (1 << 5)         ///< codec data, not a frame
#define MMAL_BUFFER_HEADER_FLAG_ENCRYPTED (1 << 6)
#define MMAL_BUFFER_HEADER_FLAG_CODECSIDEINFO (1 << 7)
#define MMAL_BUFFER_HEADER_FLAGS_SNAPSHOT (1 << 8)
#define MMAL_BUFFER_HEADER_FLAG_CORRUPTED (1 << 9)
#define MMAL_BUFFER_HEADER_FLAG_TRANSMISSION_FAILED (1 << 10)
#define MMAL_BUFFER_HEADER_FLAG_DECODEONLY (1 << 11)  ///< decode it, do not hand it out
#define MMAL_BUFFER_HEADER_FLAG_NAL_END (1 << 12)
#define MMAL_BUFFER_HEADER_FLAG_UNKNOWN 0xFFFFFFFF

/// Takes another reference.
MMAL_API void mmal_buffer_header_acquire(MMAL_BUFFER_HEADER_T* header);

/// Back to an empty payload: cmd, length, offset and flags 0, no time stamps.
MMAL_API void mmal_buffer_header_reset(MMAL_BUFFER_HEADER_T* header);

/// Gives a reference back. With the last one the header goes back to where it came from: a pool's
/// free queue, through the pool's callback where one is set. A header that nobody holds, and null,
/// are ignored. Any thread, port callbacks included; does not block.
MMAL_API void mmal_buffer_header_release(MMAL_BUFFER_HEADER_T* header);

/// Headers that share a payload are not offered here: MMAL_ENOSYS.
MMAL_API MMAL_STATUS_T mmal_buffer_header_replicate(MMAL_BUFFER_HEADER_T* dest,
                                                    MMAL_BUFFER_HEADER_T* src);

/// Brackets for touching a payload that lives outside the processor's memory. Here payloads are
/// ordinary memory and both do nothing.
MMAL_API MMAL_STATUS_T mmal_buffer_header_mem_lock(MMAL_BUFFER_HEADER_T* header);
MMAL_API void mmal_buffer_header_mem_unlock(MMAL_BUFFER_HEADER_T* header);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_BUFFER_H
