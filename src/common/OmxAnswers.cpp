#include "common/OmxAnswers.h"

#include <cerrno>

#include "common/TimedWait.h"

namespace {

// A semaphore cannot be woken for an error event without counting it as an answer, so waits are cut
// into slices and look in between.
constexpr unsigned int sliceMs = 200;

/// Waits slice by slice. `lookAround` runs after each slice that brought nothing, is told how long
/// the wait has lasted, and ends it by answering false.
template <typename LookAround>
bool WaitInSlices(sem_t& answer, LookAround lookAround) {
  for (unsigned int waitedMs = sliceMs;; waitedMs += sliceMs) {
    const WaitResult result = TimedWait(answer, sliceMs);
    if (result == WaitResult::Done) return true;
    if (result == WaitResult::Failed || !lookAround(waitedMs)) return false;
  }
}

}  // namespace

bool WaitForOmxAnswer(sem_t& answer, const std::atomic<bool>& errorSeen) {
  unsigned int limitMs = omxAnswerLimitMs;
  bool shortened = false;
  return WaitInSlices(answer, [&](unsigned int waitedMs) {
    if (!shortened && errorSeen) {
      shortened = true;
      if (waitedMs + omxErrorGraceMs < limitMs) limitMs = waitedMs + omxErrorGraceMs;
    }
    return waitedMs < limitMs;
  });
}

bool WaitForOmxAnswer(sem_t& answer, unsigned int limitMs) {
  return WaitInSlices(answer, [&](unsigned int waitedMs) { return waitedMs < limitMs; });
}

OmxAnswer WaitForOmxAnswer(sem_t& answer, sem_t& other, unsigned int limitMs) {
  bool otherCame = false;
  const bool came = WaitInSlices(answer, [&](unsigned int waitedMs) {
    otherCame = sem_trywait(&other) == 0;
    return !otherCame && waitedMs < limitMs;
  });
  if (came) return OmxAnswer::Came;
  return otherCame ? OmxAnswer::OtherCame : OmxAnswer::None;
}

void ForgetOmxAnswers(sem_t& answer) {
  while (sem_trywait(&answer) == 0) continue;
}

void WaitForOmxAnswerForGood(sem_t& answer) {
  while (sem_wait(&answer) != 0 && errno == EINTR) continue;
}
