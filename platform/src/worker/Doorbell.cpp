#include "worker/Doorbell.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>

namespace tessera_platform {

namespace {

/// As long as it takes to rouse a client that sleeps on an idle processor of a virtual machine.
constexpr std::chrono::microseconds awakeFor{80};
/// Longer than the processor takes to find out that nobody else wants it.
constexpr std::chrono::microseconds somebodyElseRan{5};
/// For a clock that stands still.
constexpr int mostLooks = 400;

/// Reads or writes one byte. @return false when the descriptor does not work
template <typename Transfer>
bool transferred(Transfer transfer) {
  for (;;) {
    const ssize_t count = transfer();
    if (count == 1) return true;
    if (count == 0 || errno != EINTR) return false;
  }
}

}  // namespace

Doorbell::Doorbell() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  readEnd_ = ends[0];
  writeEnd_ = ends[1];
}

Doorbell::~Doorbell() {
  if (readEnd_ < 0) return;
  close(readEnd_);
  close(writeEnd_);
}

/// Looks for the ring for a while, but gives way to everybody else: to rouse the worker costs more
/// than this. Where the client runs on the same processor, it would only be kept from it.
void Doorbell::lieAwake(Lock& held) {
  if (sched_getcpu() == ringersProcessor_) return;
  held.unlock();
  Clock::time_point last = Clock::now();
  const Clock::time_point end = last + awakeFor;
  for (int looks = 0; asleep_ && looks < mostLooks; ++looks) {
    sched_yield();
    const Clock::time_point now = Clock::now();
    if (now > end || now - last > somebodyElseRan) break;
    last = now;
  }
  held.lock();
}

void Doorbell::sleep(Lock& held, Clock::time_point until, bool soon) {
  asleep_ = true;
  if (soon && until == never) lieAwake(held);
  if (!asleep_) return;
  reading_ = until == never && readEnd_ >= 0;
  if (reading_) {
    held.unlock();
    char byte;
    transferred([&] { return read(readEnd_, &byte, 1); });
    held.lock();
    reading_ = false;
  }
  // Nobody has rung where an application has closed the pipe.
  const auto awake = [this] { return !asleep_.load(); };
  if (until == never)
    rung_.wait(held, awake);
  else
    rung_.wait_until(held, until, awake);
  asleep_ = false;
}

void Doorbell::ring(Lock& held) {
  const bool asleep = asleep_.exchange(false);
  const bool reading = reading_;
  ringersProcessor_ = sched_getcpu();
  held.unlock();
  if (!asleep) return;
  if (!reading || !transferred([this] { return write(writeEnd_, "", 1); })) rung_.notify_one();
}

}  // namespace tessera_platform
