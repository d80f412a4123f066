#include "common/TimedWait.h"

#include <cerrno>
#include <limits>

Deadline::Deadline(unsigned int limitMs) {
  constexpr long nanosecondsPerSecond = 1000000000;
  if (clock_gettime(CLOCK_REALTIME, &moment_) != 0) return;
  const auto seconds = static_cast<std::time_t>(limitMs / 1000);
  // A second of room for the carry below: a 32-bit time_t must not wrap into the past.
  if (moment_.tv_sec > std::numeric_limits<std::time_t>::max() - seconds - 1) return;
  moment_.tv_sec += seconds;
  moment_.tv_nsec += static_cast<long>(limitMs % 1000) * 1000000;
  if (moment_.tv_nsec >= nanosecondsPerSecond) {
    moment_.tv_nsec -= nanosecondsPerSecond;
    ++moment_.tv_sec;
  }
  known_ = true;
}

bool Deadline::passed() const {
  timespec now{};
  if (!known_ || clock_gettime(CLOCK_REALTIME, &now) != 0) return false;
  if (now.tv_sec != moment_.tv_sec) return now.tv_sec > moment_.tv_sec;
  return now.tv_nsec >= moment_.tv_nsec;
}

WaitResult Deadline::wait(sem_t& semaphore) const {
  if (!known_) return WaitResult::Failed;
  while (sem_timedwait(&semaphore, &moment_) != 0) {
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? WaitResult::TimedOut : WaitResult::Failed;
  }
  return WaitResult::Done;
}

WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs) {
  return Deadline(limitMs).wait(semaphore);
}
