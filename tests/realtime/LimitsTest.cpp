// The limits of all waits against the real clock, while signals come without pause. Everywhere else
// time is virtual.

#include <gtest/gtest.h>
#include <signal.h>
#include <tessera/tessera.h>
#include <tessera_platform/control.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "support/Capture.h"
#include "support/JpegOracle.h"
#include "support/Pictures.h"

namespace {

namespace control = tessera_platform;
using namespace std::chrono_literals;
using support::Bytes;
using Clock = std::chrono::steady_clock;
using Work = std::function<bool()>;  ///< whether it went as expected

constexpr int width = 64, height = 48;
/// What a starved machine may need until a thread that could go on does so.
constexpr auto patience = 60s;
/// What the wall clock may be ahead of the steady one within a second while it is being adjusted.
constexpr auto slewed = 5ms;

unsigned length(const Bytes& bytes) {
  return static_cast<unsigned>(bytes.size());
}
const Bytes& frame() {
  static const Bytes yuyv = support::toYuyv(support::scene(width, height));
  return yuyv;
}

/// One wait that nobody ends: what goes before it, and the wait itself.
struct Limit {
  const char* name;
  std::chrono::milliseconds limit;
  Work wait;
  Work before = [] { return true; };
};

Limit jpeg(const char* name, IJPEGEncoder* made) {
  const std::shared_ptr<IJPEGEncoder> encoder(made, ReleaseEncoderJPEG);
  const auto encode = [encoder](int expected) {
    Bytes raw = frame(), out(20000);
    unsigned size = 0;
    return encoder->EncodeYUYV(raw.data(), length(raw), width, height, out.data(), length(out),
                               size) == expected;
  };
  EXPECT_TRUE(encode(1)) << name;
  return {name, 10s, [=] { return encode(0); }};
}

Limit pool() {
  const std::shared_ptr<DecoderPool> pool(GetDecoderPool(), ReleaseDecoderPool);
  const auto decode = [pool] {
    Bytes data = support::encodeJpeg(support::scene(width, height), support::Sampling::Yuv420, 80);
    int w = 0, h = 0;
    return pool->DecodeJpeg(reinterpret_cast<char*>(data.data()), length(data), w, h) != nullptr;
  };
  EXPECT_TRUE(decode());
  return {"DecoderPool", 9950ms, [=] { return !decode(); }};
}

/// Both waits of an H.264 class, on objects of their own.
template <typename Make>
void addH264(const char* in, const char* out, std::chrono::milliseconds inLimit,
             std::chrono::milliseconds outLimit, Make make, std::vector<Limit>& limits) {
  const auto feeds = [](auto object, CodecStatus status) {
    return [=] {
      Bytes raw = frame();
      return object->feed(raw) == status;
    };
  };
  const auto fed = make(), drained = make();
  limits.push_back({in, inLimit, feeds(fed, CodecTimeout), feeds(fed, CodecOk)});
  limits.push_back({out, outLimit, [drained] {
                      Bytes data(20000);
                      return drained->take(data) == CodecTimeout;
                    }});
}

struct Encoder {
  std::unique_ptr<IH264Encoder, int (*)(IH264Encoder*)> made;
  explicit Encoder(IH264Encoder* encoder) : made(encoder, ReleaseEncoderH264) {
    EXPECT_TRUE(encoder->Create(0x56595559, width, height, 30, 1, 1, 1, 500000));
  }
  CodecStatus feed(Bytes& raw) { return made->ProcessInput(raw.data(), length(raw), 0, 0); }
  CodecStatus take(Bytes& data) {
    unsigned size = 0, flags = 0;
    return made->ProcessOutput(data.data(), length(data), size, flags);
  }
};

struct Decoder {
  std::unique_ptr<IH264Decoder, int (*)(IH264Decoder*)> made{nullptr, FreeH264Decoder};
  Decoder() {
    IH264Decoder* decoder = nullptr;
    EXPECT_EQ(CreateH264Decoder(&decoder), 1);
    made.reset(decoder);
    EXPECT_TRUE(decoder->Create(width, height, 0, nullptr));
  }
  CodecStatus feed(Bytes&) {
    unsigned char data[64] = {};
    return made->ProcessInput(data, sizeof data, width, height, 0, 0);
  }
  CodecStatus take(Bytes& data) {
    unsigned size = 0, w = 0, h = 0;
    unsigned long long timestamp = 0;
    return made->ProcessOutput(data.data(), length(data), size, w, h, timestamp);
  }
};

std::vector<Limit> allLimits() {
  std::vector<Limit> limits{jpeg("CMmalJpegEncoder", CreateEncoderJPEG()),
                            jpeg("COmxJpegEncoder", new COmxJpegEncoder), pool()};
  addH264(
      "CMmalH264Encoder in", "CMmalH264Encoder out", 1s, 100ms,
      [] { return std::make_shared<Encoder>(CreateEncoderH264()); }, limits);
  addH264(
      "COmxH264Encoder in", "COmxH264Encoder out", 10s, 10s,
      [] { return std::make_shared<Encoder>(new COmxH264Encoder); }, limits);
  addH264(
      "CMmalH264Decoder in", "CMmalH264Decoder out", 1s, 100ms,
      [] { return std::make_shared<Decoder>(); }, limits);
  return limits;
}

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
    asExpected = limit.wait() && began;
    took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    handled = signals;
  }
};

TEST(RealTime, LimitsAreKeptWhileSignalsComeWithoutPause) {
  std::vector<Limit> limits;
  std::deque<Waiter> waiters;
  {
    const support::Capture quiet;
    limits = allLimits();
    for (const char* lost : {"wrapper", "input", "output", "EmptyBufferDone", "FillBufferDone"})
      control::inject(
          control::CompletionFault{lost, 1, true, control::CompletionFault::Drop, 0, 0});
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
