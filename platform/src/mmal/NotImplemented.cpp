#include "interface/mmal/mmal.h"
#include "interface/mmal/util/mmal_component_wrapper.h"
#include "mmal/Call.h"

// What a program for the board may link to and the software platform does not do. Each is journaled
// and open to faults like any other call, changes nothing, and says so.

namespace {

MMAL_STATUS_T notImplemented(const char* entry) {
  const mmal::Call call(entry);
  return call.stopped() ? call.refuse() : call.leave(MMAL_ENOSYS);
}

}  // namespace

MMAL_STATUS_T mmal_port_connect(MMAL_PORT_T*, MMAL_PORT_T*) {
  return notImplemented(__func__);
}
MMAL_STATUS_T mmal_port_disconnect(MMAL_PORT_T*) {
  return notImplemented(__func__);
}
MMAL_STATUS_T mmal_pool_resize(MMAL_POOL_T*, unsigned int, uint32_t) {
  return notImplemented(__func__);
}
MMAL_STATUS_T mmal_buffer_header_replicate(MMAL_BUFFER_HEADER_T*, MMAL_BUFFER_HEADER_T*) {
  return notImplemented(__func__);
}
MMAL_STATUS_T mmal_wrapper_cancel(MMAL_WRAPPER_T*) {
  return notImplemented(__func__);
}
