#ifndef TESSERA_SRC_COMMON_TIMEDWAIT_H
#define TESSERA_SRC_COMMON_TIMEDWAIT_H

#include <semaphore.h>

#include <cstdint>
#include <ctime>

/// How a wait on a semaphore ended.
enum class WaitResult {
  Done,      ///< the semaphore was taken
  TimedOut,  ///< the limit passed first
  Failed,    ///< the clock or the semaphore does not work, or the deadline cannot be expressed
};

// Every wait and every look at a clock goes through this file.

/// Takes the semaphore, waiting for at most `limitMs` milliseconds of CLOCK_REALTIME. The
/// deadline is computed once: a storm of signals does not stretch it.
WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs);

/// A moment of CLOCK_MONOTONIC at which any number of waits end, wherever the wall clock is set
/// meanwhile.
class SteadyDeadline {
 public:
  explicit SteadyDeadline(unsigned int limitMs);
  /// The same moment again.
  static SteadyDeadline at(std::int64_t moment);

  /// In nanoseconds; negative when the clock does not work.
  std::int64_t moment() const { return moment_; }
  bool known() const { return moment_ >= 0; }
  bool passed() const;
  /// This moment, or the one `limitMs` from now if that is sooner.
  SteadyDeadline within(unsigned int limitMs) const;

 private:
  SteadyDeadline() = default;
  std::int64_t moment_ = -1;
};

/// Takes the semaphore if it is posted. @return TimedOut when it is not
WaitResult TakePosted(sem_t& semaphore);

/// Takes the semaphore, waiting until the deadline, but for no longer than a slice of time.
WaitResult SteadySlice(sem_t& semaphore, const SteadyDeadline& end);

/// Takes the semaphore, waiting until the deadline. `lookAround` runs after each slice that brought
/// nothing; it may bring the deadline nearer, and ends the wait (TimedOut) by answering false.
template <typename LookAround>
WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end, LookAround lookAround) {
  for (;;) {
    const WaitResult result = SteadySlice(semaphore, end);
    if (result != WaitResult::TimedOut) return result;
    if (!lookAround() || end.passed()) return WaitResult::TimedOut;
  }
}

WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end);

/// Takes the semaphore without a time limit, through any number of signals.
void WaitForGood(sem_t& semaphore);

/// Sleeps so long; a signal may end it sooner.
void SleepMs(unsigned int milliseconds);

#endif  // TESSERA_SRC_COMMON_TIMEDWAIT_H
