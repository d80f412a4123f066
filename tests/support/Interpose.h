#ifndef TESSERA_TESTS_SUPPORT_INTERPOSE_H
#define TESSERA_TESTS_SUPPORT_INTERPOSE_H

#include <atomic>
#include <cstddef>

/// The program that links this has semaphores, clocks, sleeps and operator new of its own, which
/// pass on to the system's until a fault, or virtual time, is asked for. They are seen by
/// libtessera.so and the platform too.
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
extern Failing semWait;       ///< sem_wait, sem_timedwait and sem_trywait, with EINVAL
extern Failing clockGettime;  ///< asked by libtessera.so itself
extern Failing allocation;    ///< operator new, called by libtessera.so, has no memory
/// operator new and the start of a thread, on any thread but the one that armed it: a platform's
/// workers have no memory.
extern Failing elsewhere;

/// Runs, if there is one, when libtessera.so calls operator new.
extern std::atomic<void (*)()> beforeAllocation;

/// Whether an address is in the code of libtessera.so.
bool isLibrary(const void* address);

/// Calls of operator new by code of libtessera.so, on whatever thread, since the program started.
std::size_t allocationsOfLibrary();

/// Blocks made by operator new, by anybody, and not yet deleted.
std::size_t liveBlocks();

/// Semaphores initialised and not yet destroyed; nobody but the library has any.
int liveSemaphores();

void reset();

}  // namespace support::interpose

#endif  // TESSERA_TESTS_SUPPORT_INTERPOSE_H
