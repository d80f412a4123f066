#include "common/OmxAnswers.h"

#include <algorithm>
#include <cerrno>

#include "common/TimedWait.h"

namespace {

// A semaphore cannot be woken for an error event without counting it as an answer, so waits are cut
// into slices and look in between.
constexpr unsigned int sliceMs = 200;

/// Waits slice by slice, as many as the limit holds, or until its end where slices end late.
/// `lookAround` runs after each slice that brought nothing, and ends the wait by answering false.
template <typename LookAround>
bool WaitInSlices(sem_t& answer, unsigned int limitMs, LookAround lookAround) {
  const Deadline end(limitMs);
  for (unsigned int waitedMs = sliceMs;; waitedMs += sliceMs) {
    const WaitResult result = TimedWait(answer, sliceMs);
    if (result == WaitResult::Done) return true;
    if (result == WaitResult::Failed || !lookAround()) return false;
    if (waitedMs >= limitMs || end.passed()) return false;
  }
}

bool GoOn() {
  return true;
}

}  // namespace

bool WaitForOmxAnswer(sem_t& answer, const std::atomic<bool>& errorSeen) {
  unsigned int leftMs = omxAnswerLimitMs;
  const auto noError = [&] {
    leftMs -= sliceMs;
    return !errorSeen;
  };
  if (WaitInSlices(answer, omxAnswerLimitMs, noError)) return true;
  return errorSeen && leftMs > 0 && WaitInSlices(answer, std::min(leftMs, omxErrorGraceMs), GoOn);
}

bool WaitForOmxAnswer(sem_t& answer, unsigned int limitMs) {
  return WaitInSlices(answer, limitMs, GoOn);
}

OmxAnswer WaitForOmxAnswer(sem_t& answer, sem_t& other, unsigned int limitMs) {
  bool otherCame = false;
  const auto lookForOther = [&] {
    otherCame = sem_trywait(&other) == 0;
    return !otherCame;
  };
  if (WaitInSlices(answer, limitMs, lookForOther)) return OmxAnswer::Came;
  return otherCame ? OmxAnswer::OtherCame : OmxAnswer::None;
}

void ForgetOmxAnswers(sem_t& answer) {
  while (sem_trywait(&answer) == 0) continue;
}

void WaitForOmxAnswerForGood(sem_t& answer) {
  while (sem_wait(&answer) != 0 && errno == EINTR) continue;
}
