#ifndef TESSERA_SRC_COMMON_TIMEDWAIT_H
#define TESSERA_SRC_COMMON_TIMEDWAIT_H

#include <semaphore.h>

#include <ctime>

/// How a wait on a semaphore ended.
enum class WaitResult {
  Done,      ///< the semaphore was taken
  TimedOut,  ///< the limit passed first
  Failed,    ///< the clock or the semaphore does not work, or the deadline cannot be expressed
};

/// A moment, computed once, at which any number of waits end: neither a storm of signals nor a
/// semaphore that is posted again and again stretches it.
class Deadline {
 public:
  explicit Deadline(unsigned int limitMs);

  /// Whether the moment is past. A semaphore that can be taken at once is taken after the moment
  /// too, so a loop of waits asks here before each of them.
  bool passed() const;

  WaitResult wait(sem_t& semaphore) const;

 private:
  timespec moment_{};
  bool known_ = false;
};

/// Takes the semaphore, waiting for at most `limitMs` milliseconds.
WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs);

#endif  // TESSERA_SRC_COMMON_TIMEDWAIT_H
