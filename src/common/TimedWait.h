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

/// The time between two looks at a semaphore. Nothing sleeps on the semaphore itself: sem_timedwait
/// ends by the wall clock, and one that sleeps while that is set back by half a minute sleeps half
/// a minute longer, however short it was meant to be. An answer that comes at once is seen at once;
/// the longer it takes the longer are the pauses, a thirty-second part of the wait so far, so that
/// they cost an answer next to nothing of its time.
class Pauses {
 public:
  Pauses();
  /// @return Done after a pause, TimedOut once the deadline is past
  WaitResult next(const SteadyDeadline& end);

 private:
  std::int64_t start_;
  int quickLooks_ = 0;
};

/// Takes the semaphore, waiting until the deadline. `lookAround` runs between the looks at the
/// semaphore; it may bring the deadline nearer, and ends the wait (TimedOut) by answering false.
template <typename LookAround>
WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end, LookAround lookAround) {
  if (!end.known()) return WaitResult::Failed;
  for (Pauses pauses;;) {
    const WaitResult taken = TakePosted(semaphore);
    if (taken != WaitResult::TimedOut) return taken;
    if (!lookAround()) return WaitResult::TimedOut;
    const WaitResult paused = pauses.next(end);
    if (paused != WaitResult::Done) return paused;
  }
}

WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end);

/// Takes the semaphore without a time limit, through any number of signals.
void WaitForGood(sem_t& semaphore);

/// Sleeps so long; a signal may end it sooner.
void SleepMs(unsigned int milliseconds);

#endif  // TESSERA_SRC_COMMON_TIMEDWAIT_H
