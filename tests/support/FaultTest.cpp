#include "support/FaultTest.h"

#include <IL/OMX_Core.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <fstream>
#include <thread>

namespace support {
namespace {

std::atomic<int> signals{0};

std::string without(std::string text, const std::string& part) {
  const std::size_t at = text.find(part);
  return at == std::string::npos ? text : text.erase(at, part.size());
}

}  // namespace

AnyFault refuse(const std::string& call, unsigned nth, bool sticky) {
  const auto status = call.rfind("OMX_", 0) == 0 ? OMX_ErrorInsufficientResources : 7;
  return control::CallFault{call, nth, sticky, control::CallFault::Fail, status};
}
AnyFault nullResult(const std::string& call, unsigned nth) {
  return control::CallFault{call, nth, false, control::CallFault::NullResult, 0};
}
AnyFault lose(const std::string& completion, unsigned nth, bool sticky) {
  return control::CompletionFault{completion, nth, sticky, control::CompletionFault::Drop, 0, 0};
}
AnyFault delay(const std::string& completion, unsigned nth, unsigned delayMs) {
  return control::CompletionFault{completion, nth, false, control::CompletionFault::Delay,
                                  delayMs,    0};
}
AnyFault mangle(const std::string& completion, control::CompletionFault::Action action,
                unsigned nth, std::uint32_t code) {
  return control::CompletionFault{completion, nth, false, action, 0, code};
}
void inject(const AnyFault& fault) {
  std::visit([](const auto& each) { control::inject(each); }, fault);
}

std::string omxLine(const std::string& label) {
  return label +
         " - 0x80001000:there were insufficient resources to perform the requested operation\n";
}

std::string calls() {
  std::string text;
  for (std::string line : control::journal(control::Lines::Calls)) {
    for (const char* part : {"mmal_", "OMX_", " = SUCCESS", " = None"}) line = without(line, part);
    text += line + '\n';
  }
  return text;
}

void expectConversation(const std::string& file) {
  control::stopJournal();
  std::ifstream in(TESSERA_CONVERSATIONS "/" + file);
  std::string text;
  for (std::string line; std::getline(in, line);)
    if (line[0] != '#') text += line + '\n';
  EXPECT_EQ(calls(), text);
}

struct Disturbed::Storm {
  struct sigaction former {};
  std::atomic<bool> going{true};
  std::thread sender;

  explicit Storm(pthread_t target) {
    signals = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, &former);
    sender = std::thread([this, target] {
      while (going) {
        pthread_kill(target, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    });
  }
  ~Storm() {
    going = false;
    sender.join();
    sigaction(SIGUSR1, &former, nullptr);
    EXPECT_GT(signals, 100) << "hardly a storm";
  }
};

Disturbed::Disturbed(Disturbance how, LimitBy clock)
    : endsEarly_(how == Disturbance::ClockAhead && clock == LimitBy::WallClock) {
  using namespace std::chrono_literals;
  if (how == Disturbance::Signals) storm_ = std::make_unique<Storm>(pthread_self());
  if (how == Disturbance::ClockAhead) interpose::setClockDuringNextWait(1h);
  if (how == Disturbance::ClockBack)
    interpose::setClockDuringNextWait(clock == LimitBy::WallClock ? -300ms : -30s);
}

Disturbed::~Disturbed() = default;

int Disturbed::atLeast(int limitMs) const {
  return endsEarly_ ? 40 : limitMs;
}

int Disturbed::atMost(int limitMs) const {
  return endsEarly_ ? std::max(limitMs - 100, 900) : limitMs + 2000;
}

}  // namespace support
