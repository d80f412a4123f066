#include "common/Waits.h"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace common {
namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;
constexpr std::int64_t nanosecondsPerMs = 1000000;
/// After so long a wait looks for what does not post its semaphore: an error event, or another
/// semaphore. Only answers that are late or missing meet it.
constexpr std::int64_t slice = 200 * nanosecondsPerMs;

/// CLOCK_MONOTONIC in nanoseconds; negative when it does not work.
std::int64_t SteadyNow() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return -1;
  return now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
}

timespec ToTimespec(std::int64_t nanoseconds) {
  timespec time{};
  time.tv_sec = static_cast<std::time_t>(nanoseconds / nanosecondsPerSecond);
  time.tv_nsec = static_cast<long>(nanoseconds % nanosecondsPerSecond);
  return time;
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

SteadyDeadline SteadyDeadline::At(std::int64_t moment) {
  SteadyDeadline deadline;
  deadline.moment_ = moment;
  return deadline;
}

bool SteadyDeadline::Passed() const {
  return Known() && SteadyNow() >= moment_;
}

SteadyDeadline SteadyDeadline::Within(unsigned int limitMs) const {
  return At(std::min(moment_, SteadyDeadline(limitMs).moment_));
}

WaitResult TakePosted(sem_t& semaphore) {
  while (sem_trywait(&semaphore) != 0) {
    if (errno == EINTR) continue;
    return errno == EAGAIN ? WaitResult::TimedOut : WaitResult::Failed;
  }
  return WaitResult::Done;
}

namespace {

/// Takes the semaphore, waiting until the deadline or for one slice, whichever ends first.
///
/// Not by sem_timedwait, which goes by the wall clock: when that is set back by half a minute, it
/// sleeps half a minute longer.
WaitResult WaitASlice(sem_t& semaphore, const SteadyDeadline& end) {
  const std::int64_t now = SteadyNow();
  if (now < 0 || !end.Known()) return WaitResult::Failed;
  const timespec moment = ToTimespec(std::min(end.Moment(), now + slice));
  while (sem_clockwait(&semaphore, CLOCK_MONOTONIC, &moment) != 0) {
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? WaitResult::TimedOut : WaitResult::Failed;
  }
#ifdef __SANITIZE_THREAD__
  // The thread sanitizer does not know sem_clockwait. To post and take once more shows it that what
  // the poster did came before.
  sem_post(&semaphore);
  return TakePosted(semaphore);
#else
  return WaitResult::Done;
#endif
}

/// Takes the semaphore, waiting until the deadline. `lookAround` runs after each slice without a
/// post. It may bring the deadline nearer; when it answers false the wait ends as TimedOut.
template <typename LookAround>
WaitResult WaitInSlices(sem_t& semaphore, const SteadyDeadline& end, LookAround lookAround) {
  for (;;) {
    const WaitResult result = WaitASlice(semaphore, end);
    if (result != WaitResult::TimedOut) return result;
    if (!lookAround() || end.Passed()) return WaitResult::TimedOut;
  }
}

}  // namespace

WaitResult SteadyWait(sem_t& semaphore, const SteadyDeadline& end) {
  return WaitInSlices(semaphore, end, [] { return true; });
}

bool AwaitAnswer(sem_t& answer, const std::atomic<bool>& errorSeen) {
  SteadyDeadline end(answerLimitMs);
  bool shortened = false;
  // An error event posts nothing: a post would count as the answer.
  const auto lookForError = [&] {
    if (!shortened && errorSeen) {
      shortened = true;
      end = end.Within(errorGraceMs);
    }
    return true;
  };
  return WaitInSlices(answer, end, lookForError) == WaitResult::Done;
}

Posted AwaitEither(sem_t& first, sem_t& second, const SteadyDeadline& end) {
  bool secondCame = false;
  const auto lookForSecond = [&] {
    secondCame = TakePosted(second) == WaitResult::Done;
    return !secondCame;
  };
  if (WaitInSlices(first, end, lookForSecond) == WaitResult::Done) return Posted::First;
  return secondCame ? Posted::Second : Posted::Neither;
}

void WaitWithoutLimit(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0 && errno == EINTR) continue;
}

void Empty(sem_t& semaphore) {
  while (TakePosted(semaphore) == WaitResult::Done) continue;
}

void SleepMs(unsigned int milliseconds) {
  const timespec pause = ToTimespec(milliseconds * nanosecondsPerMs);
  clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

}  // namespace common
