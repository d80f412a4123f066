#ifndef TESSERA_SRC_COMMON_OMXANSWERS_H
#define TESSERA_SRC_COMMON_OMXANSWERS_H

#include <semaphore.h>

#include <atomic>

#include "common/TimedWait.h"

/// How long an OpenMAX IL component may take to answer, and how long it still may once it has
/// raised an error event, in milliseconds.
constexpr unsigned int omxAnswerLimitMs = 10000;
constexpr unsigned int omxErrorGraceMs = 1000;

/// How a wait that listens for two answers ended.
enum class OmxAnswer {
  Came,       ///< the first was posted and is taken
  OtherCame,  ///< the second was posted and is taken
  None,       ///< the time is up, or the clock or a semaphore does not work
};

/// Create and destroy semaphores for answers: private to the process, with count 0.
template <typename... Semaphores>
void CreateOmxSemaphores(Semaphores&... semaphores) {
  (sem_init(&semaphores, 0, 0), ...);
}
template <typename... Semaphores>
void DestroyOmxSemaphores(Semaphores&... semaphores) {
  (sem_destroy(&semaphores), ...);
}

/// Takes the semaphore that the component's answer posts.
/// @param errorSeen  set by the event handler; shortens the wait to the time of grace
/// @return false when the answer did not come in time
bool WaitForOmxAnswer(sem_t& answer, const std::atomic<bool>& errorSeen);

/// Likewise, with an end of its own.
bool WaitForOmxAnswer(sem_t& answer, const SteadyDeadline& end);

/// Waits for `answer`, and looks now and then whether `other` was posted instead.
OmxAnswer WaitForOmxAnswer(sem_t& answer, sem_t& other, const SteadyDeadline& end);

/// Takes whatever posts there are, so that none of them answers the request that follows.
void ForgetOmxAnswers(sem_t& answer);

#endif  // TESSERA_SRC_COMMON_OMXANSWERS_H
