#ifndef MMAL_EVENTS_H
#define MMAL_EVENTS_H

#include "interface/mmal/mmal_buffer.h"
#include "interface/mmal/mmal_format.h"
#include "interface/mmal/mmal_port.h"

#ifdef __cplusplus
extern "C" {
#endif

// Values of MMAL_BUFFER_HEADER_T::cmd.
#define MMAL_EVENT_ERROR MMAL_FOURCC('E', 'R', 'R', 'O')  ///< payload: an MMAL_STATUS_T
#define MMAL_EVENT_EOS MMAL_FOURCC('E', 'E', 'O', 'S')    ///< payload: MMAL_EVENT_END_OF_STREAM_T
#define MMAL_EVENT_FORMAT_CHANGED \
  MMAL_FOURCC('E', 'F', 'C', 'H')  ///< payload: MMAL_EVENT_FORMAT_CHANGED_T

typedef struct {
  MMAL_PORT_TYPE_T port_type;
  uint32_t port_index;
} MMAL_EVENT_END_OF_STREAM_T;

/// The stream is not what the port's format says. To follow: disable the port, copy `format` into
/// port->format, commit, take buffers of the new size, enable; the first picture of the new size
/// waits for that, and input with it. Where nothing of the kind happens within half a second,
/// pictures of the new size are left out. The format lives as long as the event buffer is held.
typedef struct {
  uint32_t buffer_size_min;
  uint32_t buffer_num_min;
  uint32_t buffer_size_recommended;
  uint32_t buffer_num_recommended;
  MMAL_ES_FORMAT_T* format;
} MMAL_EVENT_FORMAT_CHANGED_T;

/// The payload of a format-changed event, or null when the buffer is something else.
MMAL_API MMAL_EVENT_FORMAT_CHANGED_T* mmal_event_format_changed_get(MMAL_BUFFER_HEADER_T* buffer);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_EVENTS_H
