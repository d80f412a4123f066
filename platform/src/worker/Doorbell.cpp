#include "worker/Doorbell.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tessera_platform {

namespace {

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

void Doorbell::sleep(Lock& held, Clock::time_point until) {
  asleep_ = true;
  reading_ = until == never && readEnd_ >= 0;
  if (reading_) {
    held.unlock();
    char byte;
    transferred([&] { return read(readEnd_, &byte, 1); });
    held.lock();
    reading_ = false;
  }
  // Nobody has rung where an application has closed the pipe.
  const auto awake = [this] { return !asleep_; };
  if (until == never)
    rung_.wait(held, awake);
  else
    rung_.wait_until(held, until, awake);
  asleep_ = false;
}

void Doorbell::ring(Lock& held) {
  const bool asleep = std::exchange(asleep_, false);
  const bool reading = reading_;
  held.unlock();
  if (!asleep) return;
  if (!reading || !transferred([this] { return write(writeEnd_, "", 1); })) rung_.notify_one();
}

}  // namespace tessera_platform
