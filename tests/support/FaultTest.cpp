#include "support/FaultTest.h"

#include <IL/OMX_Core.h>

#include <fstream>

namespace support {
namespace {

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
AnyFault delay(const std::string& completion, unsigned nth, unsigned delayMs, bool sticky) {
  return control::CompletionFault{completion, nth, sticky, control::CompletionFault::Delay,
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

namespace {
using namespace std::chrono_literals;
constexpr auto disturbedAfter = 50ms;
/// Little where the wait takes as much longer.
std::chrono::milliseconds setBackBy(LimitBy clock) {
  return clock == LimitBy::WallClock ? 300ms : 30000ms;
}
}  // namespace

void disturb(Disturbance how, LimitBy clock) {
  if (how == Disturbance::ClockAhead) VirtualTime::setWallClock(1h, disturbedAfter);
  if (how == Disturbance::ClockBack) VirtualTime::setWallClock(-setBackBy(clock), disturbedAfter);
}

int disturbedMs(Disturbance how, LimitBy clock, int limitMs) {
  if (clock == LimitBy::SteadyClock) return limitMs;
  if (how == Disturbance::ClockAhead) return disturbedAfter / 1ms;
  return how == Disturbance::ClockBack ? limitMs + static_cast<int>(setBackBy(clock) / 1ms)
                                       : limitMs;
}

}  // namespace support
