#include "Interrupt.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <initializer_list>

namespace tool {
namespace {

std::atomic<int> caught{0};  // without a lock, so a handler may write it
static_assert(std::atomic<int>::is_always_lock_free);
int event = -1;

void onSignal(int signal) {
  const int error = errno;
  caught = signal;
  const std::uint64_t one = 1;
  (void)!write(event, &one, sizeof one);
  errno = error;
}

}  // namespace

void Interrupt::install() {
  event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction action = {};
  action.sa_handler = onSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old = {};
    // A signal that the caller ignores (nohup) stays ignored.
    if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
      sigaction(signal, &action, nullptr);
  }
  ::signal(SIGPIPE, SIG_IGN);
}

int Interrupt::signal() {
  return caught;
}

int Interrupt::descriptor() {
  return event;
}

}  // namespace tool
