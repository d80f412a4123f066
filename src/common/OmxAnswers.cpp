#include "common/OmxAnswers.h"

bool WaitForOmxAnswer(sem_t& answer, const std::atomic<bool>& errorSeen) {
  // A semaphore cannot be woken for an error event without counting it as an answer.
  SteadyDeadline end(omxAnswerLimitMs);
  bool told = false;
  const auto lookForError = [&] {
    if (!told && errorSeen) {
      told = true;
      end = end.within(omxErrorGraceMs);
    }
    return true;
  };
  return SteadyWait(answer, end, lookForError) == WaitResult::Done;
}

bool WaitForOmxAnswer(sem_t& answer, const SteadyDeadline& end) {
  return SteadyWait(answer, end) == WaitResult::Done;
}

OmxAnswer WaitForOmxAnswer(sem_t& answer, sem_t& other, const SteadyDeadline& end) {
  bool otherCame = false;
  const auto lookForOther = [&] {
    otherCame = TakePosted(other) == WaitResult::Done;
    return !otherCame;
  };
  if (SteadyWait(answer, end, lookForOther) == WaitResult::Done) return OmxAnswer::Came;
  return otherCame ? OmxAnswer::OtherCame : OmxAnswer::None;
}

void ForgetOmxAnswers(sem_t& answer) {
  while (TakePosted(answer) == WaitResult::Done) continue;
}
