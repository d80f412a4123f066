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

}  // namespace support
