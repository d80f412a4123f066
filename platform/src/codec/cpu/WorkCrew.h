#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_WORKCREW_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_WORKCREW_H

#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace codec {

/// Threads that help the caller through a few independent tasks and sleep in between. They start
/// with the first run that needs them, keep off the processor that the caller runs on and take no
/// signals. Where none can be started the caller does it all.
class WorkCrew {
 public:
  /// @param threads  that may take part, the caller's among them; 0: as many as processors
  explicit WorkCrew(unsigned threads = 0) : threads_(threads) {}
  ~WorkCrew();
  WorkCrew(const WorkCrew&) = delete;
  WorkCrew& operator=(const WorkCrew&) = delete;

  /// Processors that the calling thread may use.
  static unsigned processors();

  /// Calls task(0) to task(count - 1), in no particular order, and returns when all are done. The
  /// task must not throw.
  void run(unsigned count, const std::function<void(unsigned)>& task);

 private:
  void hire(unsigned helpers);
  void makeRoom();
  void help();
  bool doNext(std::unique_lock<std::mutex>& lock);

  const unsigned threads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  const std::function<void(unsigned)>* task_ = nullptr;
  unsigned next_ = 0;
  unsigned count_ = 0;
  std::atomic<unsigned> unfinished_{0};
  bool leaving_ = false;
  bool refused_ = false;
  std::vector<std::thread> helpers_;
  cpu_set_t helpersMayUse_ = {};
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_WORKCREW_H
