#ifndef TESSERA_TESTS_SUPPORT_VIRTUALTIME_H
#define TESSERA_TESTS_SUPPORT_VIRTUALTIME_H

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace support {

/// Time that depends on nothing but what is waited for. While one of these lives, the clocks stand
/// still as long as the platform has something to do or a thread that takes part works; when all of
/// them wait, they jump to the first moment that somebody waits for. So a wait that is answered is
/// never cut short, however slow the machine, and one that is not costs nothing.
///
/// The thread that makes it takes part, and so does every ClientThread; the platform's calls go in
/// step (Pace::Stepped). There is one at a time, made and destroyed while no component lives.
class VirtualTime {
 public:
  VirtualTime();
  ~VirtualTime();
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  /// Sets CLOCK_REALTIME so far ahead, or back, when that much time has passed.
  static void setWallClock(std::chrono::nanoseconds by, std::chrono::nanoseconds in);
  /// Has a signal end a wait for a semaphore, with EINTR, when that much time has passed.
  static void interrupt(std::chrono::nanoseconds in);

  /// Where everybody waits for good, nothing is due and nothing is being done, the process prints
  /// this on standard error and aborts.
  static constexpr char hangLine[] = "everybody waits for good\n";
};

/// A further thread that takes part. Whoever joins it waits as long.
class ClientThread {
 public:
  explicit ClientThread(std::function<void()> work);
  ~ClientThread() { join(); }
  ClientThread(const ClientThread&) = delete;
  ClientThread& operator=(const ClientThread&) = delete;

  void join();

 private:
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_VIRTUALTIME_H
