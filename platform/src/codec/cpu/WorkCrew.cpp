#include "codec/cpu/WorkCrew.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>

namespace codec {

namespace {

/// Tasks that began together end about together: sleeping and being woken takes longer.
constexpr std::chrono::microseconds usualWait{50};

/// Blocks every signal of the calling thread, so that threads started meanwhile inherit that: an
/// application's signals are for its own threads.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t saved_;
};

}  // namespace

WorkCrew::~WorkCrew() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    leaving_ = true;
  }
  wake_.notify_all();
  for (std::thread& helper : helpers_) helper.join();
}

unsigned WorkCrew::processors() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0)
    return static_cast<unsigned>(CPU_COUNT(&allowed));
  return std::max(1u, std::thread::hardware_concurrency());
}

void WorkCrew::hire(unsigned helpers) {
  const SignalsBlocked blocked;
  CPU_ZERO(&helpersMayUse_);  // new ones may use the caller's processor as yet
  try {
    while (helpers_.size() < helpers) helpers_.emplace_back([this] { help(); });
  } catch (const std::exception&) {
    refused_ = true;  // the threads that there are will do
  }
}

/// Keeps the helpers off the processor that the caller runs on. The system often rouses one there,
/// where it waits until the caller has done all the work, while another processor idles.
void WorkCrew::makeRoom() {
  cpu_set_t others;
  if (sched_getaffinity(0, sizeof others, &others) != 0) return;
  const int here = sched_getcpu();
  if (here >= 0 && CPU_COUNT(&others) > 1) CPU_CLR(static_cast<unsigned>(here), &others);
  if (CPU_EQUAL(&others, &helpersMayUse_)) return;
  for (std::thread& helper : helpers_)
    pthread_setaffinity_np(helper.native_handle(), sizeof others, &others);
  helpersMayUse_ = others;
}

void WorkCrew::run(unsigned count, const std::function<void(unsigned)>& task) {
  const unsigned helpers = std::min(count, threads_ > 0 ? threads_ : processors()) - 1;
  if (helpers > helpers_.size() && !refused_) hire(helpers);
  if (helpers > 0 && !helpers_.empty()) makeRoom();
  std::unique_lock<std::mutex> lock(mutex_);
  task_ = &task;
  next_ = 0;
  count_ = unfinished_ = count;
  if (!helpers_.empty()) wake_.notify_all();
  while (doNext(lock)) {
  }
  lock.unlock();
  const auto patience = std::chrono::steady_clock::now() + usualWait;
  while (unfinished_ != 0 && std::chrono::steady_clock::now() < patience) sched_yield();
  lock.lock();
  done_.wait(lock, [this] { return unfinished_ == 0; });
}

/// Does one task with the mutex let go. @return false when there is none left to begin
bool WorkCrew::doNext(std::unique_lock<std::mutex>& lock) {
  if (next_ == count_) return false;
  const unsigned index = next_++;
  const std::function<void(unsigned)>& task = *task_;
  lock.unlock();
  task(index);
  lock.lock();
  if (--unfinished_ == 0) done_.notify_one();
  return true;
}

void WorkCrew::help() {
  // Where every processor is busy the caller does better alone: do not push it aside.
  const sched_param unused = {};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &unused);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!leaving_) {
    if (!doNext(lock)) wake_.wait(lock);
  }
}

}  // namespace codec
