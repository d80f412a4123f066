#ifndef TESSERA_TESTS_SUPPORT_INTERPOSE_H
#define TESSERA_TESTS_SUPPORT_INTERPOSE_H

#include <atomic>
#include <chrono>
#include <cstddef>

/// The program that links this has semaphores, clock and operator new of its own, which pass on to
/// the system's until a fault is asked for. They are seen by libtessera.so too.
namespace support::interpose {

/// A count-down per function: at 1 the next call fails, 0 leaves it alone. `from` keeps failing.
struct Failing {
  std::atomic<int> in{0};
  std::atomic<bool> forGood{false};
  std::atomic<int> calls{0};
  std::atomic<int> met{0};

  void arm(int nth, bool keep = false);
  void disarm();
  bool hit();
};

extern Failing semInit;
extern Failing semWait;       ///< sem_wait and sem_timedwait, with EINVAL
extern Failing clockGettime;  ///< CLOCK_REALTIME only
extern Failing allocation;    ///< operator new, called by libtessera.so, has no memory
/// operator new and the start of a thread, on any thread but the one that armed it: a platform's
/// workers have no memory.
extern Failing elsewhere;

/// Divides the time that is left until a sem_timedwait's deadline; 1: as it is. Makes ten seconds a
/// fraction of one.
extern std::atomic<int> hurry;

/// Sets CLOCK_REALTIME so far ahead, or back, while the next timed wait sleeps: 50 ms after its
/// start. It stays so until reset().
void setClockDuringNextWait(std::chrono::nanoseconds by);

/// How much later than asked timed waits have ended, together: a busy machine's share of a
/// duration.
extern std::atomic<long long> lateNanoseconds;

/// How fast CLOCK_MONOTONIC runs; 1: as it is.
extern std::atomic<int> clockRate;

/// Calls of operator new by code of libtessera.so, on whatever thread, since the program started.
std::size_t allocationsOfLibrary();

/// Blocks made by operator new, by anybody, and not yet deleted.
std::size_t liveBlocks();

void reset();

}  // namespace support::interpose

#endif  // TESSERA_TESTS_SUPPORT_INTERPOSE_H
