#ifndef TESSERA_SRC_COMMON_TIMEDWAIT_H
#define TESSERA_SRC_COMMON_TIMEDWAIT_H

#include <semaphore.h>

/// How a wait on a semaphore ended.
enum class WaitResult {
  Done,      ///< the semaphore was taken
  TimedOut,  ///< the limit passed first
  Failed,    ///< the clock or the semaphore does not work, or the deadline cannot be expressed
};

/// Takes the semaphore, waiting for at most `limitMs` milliseconds. The deadline is computed once,
/// so a storm of signals does not stretch the wait.
WaitResult TimedWait(sem_t& semaphore, unsigned int limitMs);

#endif  // TESSERA_SRC_COMMON_TIMEDWAIT_H
