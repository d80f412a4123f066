#ifndef TESSERA_PLATFORM_SRC_MMAL_PORTCALL_H
#define TESSERA_PLATFORM_SRC_MMAL_PORTCALL_H

#include "mmal/Call.h"
#include "mmal/Component.h"

namespace mmal {

/// A published call on a port: `work` does it, `args` tells the arguments.
template <typename Work, typename Args>
MMAL_STATUS_T onPort(const char* entry, MMAL_PORT_T* port, Work&& work, Args&& args) {
  const Call call(entry);
  if (call.stopped()) return call.refuse(args);
  if (port == nullptr) return call.leave(MMAL_EINVAL, args);
  const MMAL_STATUS_T status = work(portOf(port).owner(), portOf(port));
  if (call.finishFirst()) portOf(port).owner().settle();
  return call.leave(status, args);
}

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_PORTCALL_H
