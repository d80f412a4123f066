#include <cerrno>

#include "bcm_host.h"
#include "control/Hooks.h"
#include "interface/vcos/vcos.h"

// The board's host library: there is no GPU to bring up.

namespace {

/// What the client calls from inside a callback is not journaled: it races with its own thread.
void record(const char* entry) {
  namespace hooks = tessera_platform::hooks;
  if (!hooks::onWorker) hooks::CallScope(entry).leaveVoid([] { return std::string(); });
}

}  // namespace

void bcm_host_init(void) {
  record("bcm_host_init");
}

void bcm_host_deinit(void) {
  record("bcm_host_deinit");
}

VCOS_STATUS_T vcos_pthreads_map_errno(void) {
  switch (errno) {
    case 0:
      return VCOS_SUCCESS;
    case EAGAIN:
      return VCOS_EAGAIN;
    case ENOENT:
      return VCOS_ENOENT;
    case ENOSPC:
      return VCOS_ENOSPC;
    case EACCES:
    case EPERM:
      return VCOS_EACCESS;
    case ENOMEM:
      return VCOS_ENOMEM;
    case ENOSYS:
      return VCOS_ENOSYS;
    case EEXIST:
      return VCOS_EEXIST;
    case ENXIO:
      return VCOS_ENXIO;
    case EINTR:
      return VCOS_EINTR;
    default:
      return VCOS_EINVAL;
  }
}
