// Where time_t has 32 bits, time ends in 2038: a deadline beyond is refused, not wrapped.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <limits>
#include <utility>

#include "common/Waits.h"

using common::WaitResult;

namespace {
constexpr std::time_t last = std::numeric_limits<std::time_t>::max();
bool atTheEnd = false;
}  // namespace

// Five seconds before the last second that there is.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (!atTheEnd) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = {last - 5, 999999999};
  return 0;
}

TEST(Deadline, BeyondTheEndOfTimeIsRefused) {
  static_assert(sizeof(void*) == 8 || last == 0x7FFFFFFF);
  const std::pair<unsigned, WaitResult> table[] = {
      {0, WaitResult::Done},      {4000, WaitResult::Done},    {4999, WaitResult::Done},
      {5000, WaitResult::Failed}, {10000, WaitResult::Failed}, {4294967295, WaitResult::Failed}};
  for (const auto& [limitMs, expected] : table) {
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    atTheEnd = true;
    const WaitResult result = common::TimedWait(semaphore, limitMs);
    atTheEnd = false;
    EXPECT_EQ(result, expected) << limitMs;
    EXPECT_EQ(sem_trywait(&semaphore), expected == WaitResult::Done ? -1 : 0) << limitMs;
    sem_destroy(&semaphore);
  }
}
