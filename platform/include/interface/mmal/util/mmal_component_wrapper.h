#ifndef MMAL_COMPONENT_WRAPPER_H
#define MMAL_COMPONENT_WRAPPER_H

#include "interface/mmal/mmal_component.h"
#include "interface/mmal/mmal_pool.h"
#include "interface/mmal/mmal_queue.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A component with the pools and queues that a simple client needs. The client sets user_data and
/// callback; pools exist while their port is enabled.
typedef struct MMAL_WRAPPER_T {
  void* user_data;
  void (*callback)(struct MMAL_WRAPPER_T* wrapper);  ///< after every buffer that came back, from
                                                     ///< the component's own thread; null: none
  MMAL_COMPONENT_T* component;
  MMAL_STATUS_T status;  ///< MMAL_SUCCESS until the component reports an error
  MMAL_PORT_T* control;
  uint32_t input_num;
  MMAL_PORT_T** input;
  MMAL_POOL_T** input_pool;
  uint32_t output_num;
  MMAL_PORT_T** output;
  MMAL_POOL_T** output_pool;
  MMAL_QUEUE_T** output_queue;  ///< filled buffers
  int64_t time_setup;           ///< microseconds that creation, enabling and disabling took
  int64_t time_enable;
  int64_t time_disable;
} MMAL_WRAPPER_T;

#define MMAL_WRAPPER_FLAG_WAIT 1              ///< buffer_get: wait for one
#define MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE 2  ///< port_enable: buffers with payloads

/// Makes a component in a wrapper and enables it. Results as for mmal_component_create().
MMAL_API MMAL_STATUS_T mmal_wrapper_create(MMAL_WRAPPER_T** wrapper, const char* name);

/// Disables what is enabled, ends the component, frees pools, queues and the wrapper.
MMAL_API MMAL_STATUS_T mmal_wrapper_destroy(MMAL_WRAPPER_T* wrapper);

/// Makes the port's pool of buffer_num buffers of buffer_size bytes and enables it.
/// @param flags  MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE, or 0 for headers without payload
MMAL_API MMAL_STATUS_T mmal_wrapper_port_enable(MMAL_PORT_T* port, uint32_t flags);

/// Disables the port and frees its pool; filled buffers that nobody fetched are gone with it. Every
/// buffer that the client holds must have been released. On a port of a component that has no
/// wrapper this is mmal_port_disable().
MMAL_API MMAL_STATUS_T mmal_wrapper_port_disable(MMAL_PORT_T* port);

/// Takes an empty buffer of the port's pool.
/// @param flags  MMAL_WRAPPER_FLAG_WAIT, or 0 to return at once
/// @return MMAL_EAGAIN when there is none now, MMAL_EINVAL for a disabled port, or the wrapper's
///         status after an error
MMAL_API MMAL_STATUS_T mmal_wrapper_buffer_get_empty(MMAL_PORT_T* port,
                                                     MMAL_BUFFER_HEADER_T** buffer, uint32_t flags);

/// The same for a filled buffer of an output port. Release it when done.
MMAL_API MMAL_STATUS_T mmal_wrapper_buffer_get_full(MMAL_PORT_T* port,
                                                    MMAL_BUFFER_HEADER_T** buffer, uint32_t flags);

/// A wait in buffer_get ends with a buffer or an error and is not cut short: MMAL_ENOSYS.
MMAL_API MMAL_STATUS_T mmal_wrapper_cancel(MMAL_WRAPPER_T* wrapper);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_COMPONENT_WRAPPER_H
