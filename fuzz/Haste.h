#ifndef TESSERA_FUZZ_HASTE_H
#define TESSERA_FUZZ_HASTE_H

#include <dlfcn.h>
#include <semaphore.h>

#include <ctime>

namespace fuzz {
/// Timed waits take this fraction of their time, or the fuzzer would do nothing but wait.
inline int haste = 100;
}  // namespace fuzz

/// Visible, or the library's own calls would not come here.
extern "C" __attribute__((visibility("default"))) int sem_timedwait(sem_t* semaphore,
                                                                    const timespec* deadline) {
  static auto* const real =
      reinterpret_cast<int (*)(sem_t*, const timespec*)>(dlsym(RTLD_NEXT, "sem_timedwait"));
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long left = (static_cast<long long>(deadline->tv_sec) - now.tv_sec) * 1000000000LL +
                         deadline->tv_nsec - now.tv_nsec;
  const long long at = now.tv_nsec + (left > 0 ? left / fuzz::haste : left);
  // A time that has passed may be before this second: the nanoseconds must not go below 0.
  const timespec near{at < 0 ? 0 : now.tv_sec + static_cast<std::time_t>(at / 1000000000LL),
                      at < 0 ? 0 : static_cast<long>(at % 1000000000LL)};
  return real(semaphore, &near);
}

#endif  // TESSERA_FUZZ_HASTE_H
