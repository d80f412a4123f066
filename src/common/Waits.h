#ifndef TESSERA_SRC_COMMON_WAITS_H
#define TESSERA_SRC_COMMON_WAITS_H

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <ctime>

// Every wait and every look at a clock goes through this file.

namespace common {

/// How long a component may take to answer where no other limit is set, in milliseconds: many times
/// what the largest picture takes, so that only one which has stopped ever meets it. And how long
/// it still may once it has raised an error event, which need not be about the request.
constexpr unsigned int answerLimitMs = 10000;
constexpr unsigned int errorGraceMs = 1000;

/// How a wait on a semaphore ended.
enum class WaitResult {
  Done,      ///< the semaphore was taken
  TimedOut,  ///< the limit passed first
  Failed,    ///< the clock or the semaphore does not work, or the deadline cannot be expressed
};

/// Takes the semaphore, waiting for at most `limitMs` milliseconds of CLOCK_REALTIME. The
/// deadline is computed once: a storm of signals does not stretch it.
WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs);

/// A moment of CLOCK_MONOTONIC at which any number of waits end, wherever the wall clock is set
/// meanwhile.
class SteadyDeadline {
 public:
  explicit SteadyDeadline(unsigned int limitMs);
  /// The same moment again.
  static SteadyDeadline At(std::int64_t moment);

  /// In nanoseconds; negative when the clock does not work.
  std::int64_t Moment() const { return moment_; }
  bool Known() const { return moment_ >= 0; }
  bool Passed() const;
  /// This moment, or the one `limitMs` from now if that is sooner.
  SteadyDeadline Within(unsigned int limitMs) const;

 private:
  SteadyDeadline() = default;
  std::int64_t moment_ = -1;
};

/// Takes the semaphore, waiting until the deadline.
WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end);

/// Takes the semaphore that a component's answer posts, within the limits above.
/// @param errorSeen  set by the event handler; shortens the wait to the time of grace
/// @return false when the answer did not come in time
bool AwaitAnswer(sem_t& answer, const std::atomic<bool>& errorSeen);

/// How a wait for two semaphores ended.
enum class Posted { First, Second, Neither };

/// Waits for `first`, and looks five times a second whether `second` was posted instead; takes the
/// one that was.
Posted AwaitEither(sem_t& first, sem_t& second, const SteadyDeadline& end);

/// Takes the semaphore without a time limit, through any number of signals.
void WaitWithoutLimit(sem_t& semaphore);

/// Create and destroy semaphores: private to the process, with count 0.
template <typename... Semaphores>
void CreateSemaphores(Semaphores&... semaphores) {
  (sem_init(&semaphores, 0, 0), ...);
}
template <typename... Semaphores>
void DestroySemaphores(Semaphores&... semaphores) {
  (sem_destroy(&semaphores), ...);
}

/// Takes the semaphore if it is posted. @return TimedOut when it is not
WaitResult TakePosted(sem_t& semaphore);

/// Takes all posts, so that none of them is taken for the answer to a later request.
void Empty(sem_t& semaphore);

/// Sleeps so long; a signal may end it sooner.
void SleepMs(unsigned int milliseconds);

}  // namespace common

#endif  // TESSERA_SRC_COMMON_WAITS_H
