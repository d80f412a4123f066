// The limits of all waits against the real clock, while signals come without pause. Everywhere else
// time is virtual.

#include <gtest/gtest.h>
#include <signal.h>
#include <tessera_platform/control.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <thread>
#include <vector>

#include "support/Capture.h"
#include "support/Drivers.h"
#include "support/Limits.h"

namespace {

namespace control = tessera_platform;
using namespace std::chrono_literals;
using support::Limit;
using Clock = std::chrono::steady_clock;

/// What a starved machine may need until a thread that could go on does so.
constexpr auto patience = 60s;
/// What the wall clock may be ahead of the steady one within a second while it is being adjusted.
constexpr auto slewed = 5ms;

thread_local volatile sig_atomic_t signals = 0;

/// Sends the calling thread a signal every millisecond. The system's timers do it, so that
/// they come whether or not another thread gets a processor.
class Storm {
 public:
  Storm() {
    signals = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { signals = signals + 1; };
    sigaction(SIGUSR1, &action, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR1;
    event._sigev_un._tid = gettid();
    constexpr timespec pause{0, 1000000};
    const itimerspec times{pause, pause};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0) std::abort();
    timer_settime(timer_, 0, &times, nullptr);
  }
  ~Storm() { timer_delete(timer_); }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;

 private:
  timer_t timer_{};
};

/// One of the limits at work on a thread of its own.
struct Waiter {
  const Limit& limit;
  bool asExpected = false;
  std::chrono::milliseconds took{};
  int handled = 0;
  std::thread thread;

  explicit Waiter(const Limit& which) : limit(which), thread([this] { run(); }) {}
  void run() {
    const bool began = limit.before();
    const Storm storm;
    const auto start = Clock::now();
    asExpected = limit.wait() == limit.result && began;
    took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    handled = signals;
  }
};

TEST(RealTime, LimitsAreKeptWhileSignalsComeWithoutPause) {
  std::vector<Limit> limits;
  std::deque<Waiter> waiters;
  {
    const support::Capture quiet;
    for (const support::DriverClass& kind : support::driverClasses())
      for (const Limit& each : support::limitsOf(kind.name)) limits.push_back(each);
    support::loseAnswers();
    for (const Limit& limit : limits) waiters.emplace_back(limit);
    for (Waiter& waiter : waiters) waiter.thread.join();
  }
  for (const Waiter& waiter : waiters) {
    std::cout << waiter.limit.name << ": " << waiter.took.count() << " ms, " << waiter.handled
              << " signals\n";
    EXPECT_TRUE(waiter.asExpected) << waiter.limit.name;
    EXPECT_GE(waiter.took + slewed, waiter.limit.limit) << waiter.limit.name;
    EXPECT_LE(waiter.took, waiter.limit.limit + patience) << waiter.limit.name;
    EXPECT_GT(waiter.handled, 0) << waiter.limit.name;
  }
  control::clearFaults();
  const support::Capture quiet;
  limits.clear();
  EXPECT_EQ(control::describe(control::census()), "nothing");
}

}  // namespace
