#include "common/TimedWait.h"

#include <cerrno>
#include <ctime>
#include <limits>

WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs) {
  constexpr long nanosecondsPerSecond = 1000000000;
  timespec deadline{};
  if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) return WaitResult::Failed;
  const auto seconds = static_cast<std::time_t>(limitMs / 1000);
  // A second of room for the carry below: a 32-bit time_t must not wrap into the past.
  if (deadline.tv_sec > std::numeric_limits<std::time_t>::max() - seconds - 1)
    return WaitResult::Failed;
  deadline.tv_sec += seconds;
  deadline.tv_nsec += static_cast<long>(limitMs % 1000) * 1000000;
  if (deadline.tv_nsec >= nanosecondsPerSecond) {
    deadline.tv_nsec -= nanosecondsPerSecond;
    ++deadline.tv_sec;
  }
  while (sem_timedwait(&semaphore, &deadline) != 0) {
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? WaitResult::TimedOut : WaitResult::Failed;
  }
  return WaitResult::Done;
}
