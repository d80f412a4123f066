#ifndef MMAL_PORT_H
#define MMAL_PORT_H

#include "interface/mmal/mmal_buffer.h"
#include "interface/mmal/mmal_format.h"
#include "interface/mmal/mmal_parameters.h"
#include "interface/mmal/mmal_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  MMAL_PORT_TYPE_UNKNOWN = 0,
  MMAL_PORT_TYPE_CONTROL = 1,
  MMAL_PORT_TYPE_INPUT = 2,
  MMAL_PORT_TYPE_OUTPUT = 3,
  MMAL_PORT_TYPE_CLOCK = 4,
  MMAL_PORT_TYPE_INVALID = 0x7FFFFFFF
} MMAL_PORT_TYPE_T;

#define MMAL_PORT_CAPABILITY_PASSTHROUGH 0x01
#define MMAL_PORT_CAPABILITY_ALLOCATION 0x02
#define MMAL_PORT_CAPABILITY_SUPPORTS_EVENT_FORMAT_CHANGE 0x04

struct MMAL_COMPONENT_T;
struct MMAL_PORT_PRIVATE_T;
struct MMAL_PORT_USERDATA_T;

/// One end of a component. The client writes format, buffer_num, buffer_size (while the port is
/// disabled) and userdata; everything else is for it to read.
typedef struct MMAL_PORT_T {
  struct MMAL_PORT_PRIVATE_T* priv;
  const char* name;
  MMAL_PORT_TYPE_T type;
  uint16_t index;      ///< among the ports of its type
  uint16_t index_all;  ///< among all ports of the component
  uint32_t is_enabled;
  MMAL_ES_FORMAT_T* format;  ///< takes effect with mmal_port_format_commit()
  uint32_t buffer_num_min;
  uint32_t buffer_size_min;
  uint32_t buffer_alignment_min;
  uint32_t buffer_num_recommended;
  uint32_t buffer_size_recommended;
  uint32_t buffer_num;   ///< at least buffer_num_min
  uint32_t buffer_size;  ///< at least buffer_size_min
  struct MMAL_COMPONENT_T* component;
  struct MMAL_PORT_USERDATA_T* userdata;
  uint32_t capabilities;  ///< MMAL_PORT_CAPABILITY_*
} MMAL_PORT_T;

/// Gets every buffer back that was sent to the port: an input buffer that was used up, an output
/// buffer that was filled, an event (buffer->cmd not 0). Comes from the component's own thread,
/// one call at a time; whoever gets the buffer releases it. May call anything on buffers, queues
/// and pools, mmal_port_send_buffer() and mmal_port_flush().
typedef void (*MMAL_PORT_BH_CB_T)(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

/// Checks port->format and makes it the port's, sets the minimum and recommended buffer numbers
/// and sizes. On an input port it may also change the output's.
/// @return MMAL_EINVAL for a format that the port does not take (correct it, commit again; the port
///         keeps its last good one) and for an enabled port (disable it first)
MMAL_API MMAL_STATUS_T mmal_port_format_commit(MMAL_PORT_T* port);

/// Opens the port for buffers; they come back through cb.
/// @return MMAL_EINVAL when enabled already, without cb, or with buffer_num or buffer_size below
///         the minimum
MMAL_API MMAL_STATUS_T mmal_port_enable(MMAL_PORT_T* port, MMAL_PORT_BH_CB_T cb);

/// Closes the port. Every buffer that it held has come back through the callback by the time this
/// returns, and no callback of this port comes later. Blocks for a callback that is under way and
/// for the frame in the codec, except when called from a callback of the same component.
/// @return MMAL_EINVAL when it is not enabled
MMAL_API MMAL_STATUS_T mmal_port_disable(MMAL_PORT_T* port);

/// Makes the port give back every buffer it holds, unused, before this returns; it stays enabled.
/// On an input port the stream starts anew with the next buffer. On a disabled port it does nothing
/// and succeeds.
MMAL_API MMAL_STATUS_T mmal_port_flush(MMAL_PORT_T* port);

/// @return MMAL_ENOSYS for a parameter that the port does not have, MMAL_EINVAL for a wrong size or
///         value
MMAL_API MMAL_STATUS_T mmal_port_parameter_set(MMAL_PORT_T* port,
                                               const MMAL_PARAMETER_HEADER_T* param);

/// Fills in a parameter; the caller has set its id and size.
/// @return MMAL_ENOSPC when it is longer than size (size then tells how long), else as for set
MMAL_API MMAL_STATUS_T mmal_port_parameter_get(MMAL_PORT_T* port, MMAL_PARAMETER_HEADER_T* param);

/// Hands a buffer to the port: input to use up, output to fill. Returns at once; the buffer belongs
/// to the port until the callback brings it back.
/// @return MMAL_EINVAL for a disabled port, a header that the port or a queue has already, one
///         without payload or an output buffer smaller than buffer_size: the buffer stays the
///         caller's
MMAL_API MMAL_STATUS_T mmal_port_send_buffer(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

/// Connections between ports are not offered here: MMAL_ENOSYS.
MMAL_API MMAL_STATUS_T mmal_port_connect(MMAL_PORT_T* port, MMAL_PORT_T* other_port);
MMAL_API MMAL_STATUS_T mmal_port_disconnect(MMAL_PORT_T* port);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_PORT_H
