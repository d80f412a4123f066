// Goes into a program to make the platform hold one answer back, and to count the waits that end
// in a time-out. TESSERA_TEST_STALL is COMPLETION:NUMBER:MILLISECONDS.

#include <dlfcn.h>
#include <semaphore.h>
#include <tessera_platform/control.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

std::atomic<int> timeOuts{0};

struct Stall {
  Stall() {
    char completion[16];
    tessera_platform::CompletionFault fault;
    fault.action = tessera_platform::CompletionFault::Delay;
    const char* wanted = std::getenv("TESSERA_TEST_STALL");
    if (!wanted ||
        std::sscanf(wanted, "%15[^:]:%u:%u", completion, &fault.nth, &fault.delayMs) != 3)
      return;
    fault.completion = completion;
    tessera_platform::inject(fault);
  }
  ~Stall() {
    std::printf("%d time-outs, %u stalls\n", timeOuts.load(), tessera_platform::faultsHit());
  }
} stall;

}  // namespace

extern "C" __attribute__((visibility("default"))) int sem_timedwait(sem_t* semaphore,
                                                                    const timespec* deadline) {
  static const auto real =
      reinterpret_cast<decltype(&sem_timedwait)>(dlsym(RTLD_NEXT, "sem_timedwait"));
  const int result = real(semaphore, deadline);
  if (result != 0 && errno == ETIMEDOUT) ++timeOuts;
  return result;
}
