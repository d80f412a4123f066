#ifndef TESSERA_FUZZ_HASTE_H
#define TESSERA_FUZZ_HASTE_H

#include <dlfcn.h>
#include <semaphore.h>

#include <cstring>
#include <ctime>

namespace fuzz {
/// Timed waits take this fraction of their time, or the fuzzer would do nothing but wait.
inline int haste = 100;

/// Whether the call comes from the library: the software platform's clock stays as it is.
inline bool fromLibrary(const void* caller) {
  Dl_info info{};
  return dladdr(caller, &info) != 0 && info.dli_fname != nullptr &&
         std::strstr(info.dli_fname, "libtessera.so") != nullptr;
}
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

/// The limits of ten seconds: their clock runs ahead, and what is slept by it is shorter.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* now) noexcept {
  static auto* const real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, now);
  if (clock != CLOCK_MONOTONIC || !fuzz::fromLibrary(__builtin_return_address(0))) return result;
  const long long at = (now->tv_sec * 1000000000LL + now->tv_nsec) * fuzz::haste;
  *now = {static_cast<std::time_t>(at / 1000000000LL), static_cast<long>(at % 1000000000LL)};
  return result;
}

extern "C" __attribute__((visibility("default"))) int clock_nanosleep(clockid_t clock, int flags,
                                                                      const timespec* asked,
                                                                      timespec* left) {
  static auto* const real = reinterpret_cast<int (*)(clockid_t, int, const timespec*, timespec*)>(
      dlsym(RTLD_NEXT, "clock_nanosleep"));
  if (!fuzz::fromLibrary(__builtin_return_address(0))) return real(clock, flags, asked, left);
  const long long pause = (asked->tv_sec * 1000000000LL + asked->tv_nsec) / fuzz::haste;
  const timespec given{static_cast<std::time_t>(pause / 1000000000LL),
                       static_cast<long>(pause % 1000000000LL)};
  return real(clock, flags, &given, left);
}

#endif  // TESSERA_FUZZ_HASTE_H
