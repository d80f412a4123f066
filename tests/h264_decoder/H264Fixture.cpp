#include "H264Fixture.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace {

std::atomic<int> count{0};

void onSignal(int) {
  ++count;
}

}  // namespace

struct SignalStorm::Impl {
  struct sigaction formerAlarm {};
  struct sigaction formerUser {};
  std::atomic<bool> going{true};
  std::thread sender;
};

SignalStorm::SignalStorm() : impl_(new Impl) {
  count = 0;
  struct sigaction action {};
  action.sa_handler = onSignal;  // and no SA_RESTART: every wait is interrupted
  sigaction(SIGALRM, &action, &impl_->formerAlarm);
  sigaction(SIGUSR1, &action, &impl_->formerUser);
  const itimerval every{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &every, nullptr);
  impl_->sender = std::thread([this, target = pthread_self()] {
    while (impl_->going) {
      pthread_kill(target, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
}

SignalStorm::~SignalStorm() {
  impl_->going = false;
  impl_->sender.join();
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &impl_->formerAlarm, nullptr);
  sigaction(SIGUSR1, &impl_->formerUser, nullptr);
  delete impl_;
}

int SignalStorm::received() {
  return count;
}

void awaitOutputs(int count) {
  for (int i = 0; i < 5000; ++i) {
    const Strings names = control::journalNames(control::Lines::Completions);
    if (std::count(names.begin(), names.end(), "output") >= count) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  FAIL() << "the component delivers nothing";
}
