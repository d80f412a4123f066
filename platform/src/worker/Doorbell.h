#ifndef TESSERA_PLATFORM_SRC_WORKER_DOORBELL_H
#define TESSERA_PLATFORM_SRC_WORKER_DOORBELL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tessera_platform {

/// Where a worker thread sleeps, and how it is woken. Its owner's lock guards it.
///
/// A sleep without an end is a read from a pipe. To the kernel a write to a pipe says that the
/// writer will soon wait for the reader: it lets the reader run on the writer's processor, if that
/// has nothing else to do, where a condition variable would rouse another one. Without descriptors
/// it is a condition variable, as it is for a sleep that ends by itself.
class Doorbell {
 public:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;
  static constexpr Clock::time_point never = Clock::time_point::max();

  Doorbell();
  ~Doorbell();
  Doorbell(const Doorbell&) = delete;
  Doorbell& operator=(const Doorbell&) = delete;

  /// The worker sleeps and nobody has rung.
  bool asleep() const { return asleep_; }
  /// For the worker: sleeps without the lock until it rings, or until that time. Where it will
  /// probably ring very soon, from another processor, it stays awake for a while.
  void sleep(Lock& held, Clock::time_point until, bool soon = false);
  /// Wakes the worker if it sleeps. Lets go of the lock first: the woken one's first need is that.
  void ring(Lock& held);

 private:
  void lieAwake(Lock& held);

  int readEnd_ = -1;
  int writeEnd_ = -1;
  std::condition_variable rung_;
  std::atomic<bool> asleep_{false};  ///< read without the lock by the one who lies awake
  bool reading_ = false;             ///< asleep in the pipe
  int ringersProcessor_ = -1;
};

}  // namespace tessera_platform

#endif  // TESSERA_PLATFORM_SRC_WORKER_DOORBELL_H
