#include "mmal/Call.h"

namespace mmal {

namespace {
thread_local bool isWorker = false;
}

bool onWorkerThread() {
  return isWorker;
}

void becomeWorkerThread() {
  isWorker = true;
  tessera_platform::hooks::onWorker = true;
}

}  // namespace mmal
