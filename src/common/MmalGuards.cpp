#include "common/MmalGuards.h"

namespace common {

MMAL_STATUS_T ClosePort(MMAL_PORT_T* port) {
  if (!port->is_enabled) return MMAL_SUCCESS;
  const MMAL_STATUS_T status = mmal_port_disable(port);
  if (status != MMAL_SUCCESS) mmal_port_flush(port);
  return status;
}

void SendFreeBuffers(MMAL_POOL_T* pool, MMAL_PORT_T* port) {
  unsigned int refused = 0;
  while (refused <= pool->headers_num) {
    HeaderOwner buffer(mmal_queue_get(pool->queue));
    if (!buffer) return;
    if (mmal_port_send_buffer(port, buffer.get()) == MMAL_SUCCESS)
      HandOver(buffer);
    else
      ++refused;
  }
}

void ReleaseQueued(MMAL_QUEUE_T* queue) {
  while (HeaderOwner buffer{mmal_queue_get(queue)}) {
  }
}

}  // namespace common
