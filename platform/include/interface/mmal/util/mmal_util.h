#ifndef MMAL_UTIL_H
#define MMAL_UTIL_H

#include "interface/mmal/mmal_component.h"
#include "interface/mmal/mmal_pool.h"
#include "interface/mmal/mmal_port.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A status by name: "SUCCESS", "EINVAL"; "UNKNOWN" for a value outside the list.
MMAL_API const char* mmal_status_to_string(MMAL_STATUS_T status);

/// Writes a four-character code as text of at most len - 1 characters. @return buf
MMAL_API char* mmal_4cc_to_string(char* buf, size_t len, uint32_t fourcc);

/// Bytes from row to row for a width in pixels; 0 for an encoding without rows.
MMAL_API uint32_t mmal_encoding_width_to_stride(uint32_t encoding, uint32_t width);

/// mmal_pool_create() with payloads that suit the port, and its undoing.
MMAL_API MMAL_POOL_T* mmal_port_pool_create(MMAL_PORT_T* port, unsigned int headers,
                                            uint32_t payload_size);
MMAL_API void mmal_port_pool_destroy(MMAL_PORT_T* port, MMAL_POOL_T* pool);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_UTIL_H
