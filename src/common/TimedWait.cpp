#include "common/TimedWait.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;
constexpr std::int64_t nanosecondsPerMs = 1000000;
constexpr std::int64_t shortestPause = 50000;
constexpr std::int64_t longestPause = 10 * nanosecondsPerMs;
constexpr std::int64_t pausesOfAWait = 32;
/// The first looks follow each other without a pause, for as long as the shortest one would be: by
/// then a component that is asked for nothing but a new state has answered.
constexpr int quickLooks = 100;

/// CLOCK_MONOTONIC in nanoseconds; negative when it does not work.
std::int64_t SteadyNow() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return -1;
  return now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
}

void Sleep(std::int64_t nanoseconds) {
  timespec pause{};
  pause.tv_sec = static_cast<std::time_t>(nanoseconds / nanosecondsPerSecond);
  pause.tv_nsec = static_cast<long>(nanoseconds % nanosecondsPerSecond);
  clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

}  // namespace

WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs) {
  timespec end{};
  if (clock_gettime(CLOCK_REALTIME, &end) != 0) return WaitResult::Failed;
  const auto seconds = static_cast<std::time_t>(limitMs / 1000);
  // A second of room for the carry below: a 32-bit time_t must not wrap into the past.
  if (end.tv_sec > std::numeric_limits<std::time_t>::max() - seconds - 1) return WaitResult::Failed;
  end.tv_sec += seconds;
  end.tv_nsec += static_cast<long>(limitMs % 1000) * 1000000;
  if (end.tv_nsec >= nanosecondsPerSecond) {
    end.tv_nsec -= static_cast<long>(nanosecondsPerSecond);
    ++end.tv_sec;
  }
  while (sem_timedwait(&semaphore, &end) != 0) {
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? WaitResult::TimedOut : WaitResult::Failed;
  }
  return WaitResult::Done;
}

SteadyDeadline::SteadyDeadline(unsigned int limitMs) {
  const std::int64_t now = SteadyNow();
  if (now >= 0) moment_ = now + limitMs * nanosecondsPerMs;
}

SteadyDeadline SteadyDeadline::at(std::int64_t moment) {
  SteadyDeadline deadline;
  deadline.moment_ = moment;
  return deadline;
}

bool SteadyDeadline::passed() const {
  return known() && SteadyNow() >= moment_;
}

SteadyDeadline SteadyDeadline::within(unsigned int limitMs) const {
  return at(std::min(moment_, SteadyDeadline(limitMs).moment_));
}

WaitResult TakePosted(sem_t& semaphore) {
  while (sem_trywait(&semaphore) != 0) {
    if (errno == EINTR) continue;
    return errno == EAGAIN ? WaitResult::TimedOut : WaitResult::Failed;
  }
  return WaitResult::Done;
}

Pauses::Pauses() : start_(SteadyNow()) {}

WaitResult Pauses::next(const SteadyDeadline& end) {
  const std::int64_t now = SteadyNow();
  if (start_ < 0 || now < 0 || !end.known()) return WaitResult::Failed;
  if (now >= end.moment()) return WaitResult::TimedOut;
  if (quickLooks_ < quickLooks && now - start_ < shortestPause) {
    ++quickLooks_;
    sched_yield();
    return WaitResult::Done;
  }
  const std::int64_t pause =
      std::clamp((now - start_) / pausesOfAWait, shortestPause, longestPause);
  Sleep(std::min(pause, end.moment() - now));
  return WaitResult::Done;
}

WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end) {
  return SteadyWait(semaphore, end, [] { return true; });
}

void WaitForGood(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0 && errno == EINTR) continue;
}

void SleepMs(unsigned int milliseconds) {
  Sleep(milliseconds * nanosecondsPerMs);
}
