#ifndef TESSERA_TESTS_SUPPORT_FAULTTEST_H
#define TESSERA_TESTS_SUPPORT_FAULTTEST_H

#include <gtest/gtest.h>
#include <tessera_platform/control.h>

#include <chrono>
#include <functional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "support/Capture.h"
#include "support/Interpose.h"
#include "support/VirtualTime.h"

namespace support {

namespace control = tessera_platform;
using AnyFault = std::variant<control::CallFault, control::CompletionFault>;

/// Short ways to say what goes wrong. A refused call answers OMX_ErrorInsufficientResources or
/// MMAL status 7.
AnyFault refuse(const std::string& call, unsigned nth = 1, bool sticky = false);
AnyFault nullResult(const std::string& call, unsigned nth = 1);
AnyFault lose(const std::string& completion, unsigned nth = 1, bool sticky = false);
AnyFault delay(const std::string& completion, unsigned nth, unsigned delayMs, bool sticky = false);
AnyFault mangle(const std::string& completion, control::CompletionFault::Action action,
                unsigned nth = 1, std::uint32_t code = 7);
void inject(const AnyFault& fault);

/// "label - 0x80001000:...", as PrintOmxError tells a refused call.
std::string omxLine(const std::string& label);

/// The calls since startJournal, one a line, without prefixes and "= success".
std::string calls();
/// Stops the journal, and expects the calls that a file in support/conversations lists like that.
void expectConversation(const std::string& file);

constexpr int anyTime = -1;

/// Runs work, and expects its result, its lines and, in virtual time, its duration in milliseconds.
template <typename Result>
void expectAnswer(const std::function<Result()>& work, Result expected, const std::string& out,
                  const std::string& err, int tookMs = anyTime) {
  using namespace std::chrono;
  Capture capture;
  const auto start = steady_clock::now();
  EXPECT_EQ(work(), expected);
  const auto took = duration_cast<microseconds>(steady_clock::now() - start).count();
  EXPECT_EQ(capture.out(), out);
  EXPECT_EQ(capture.err(), err);
  if (tookMs != anyTime) {
    EXPECT_EQ(took, tookMs * 1000);
  }
}

/// Takes every fault away and finds nothing left behind.
class FaultTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override {
    control::clearFaults();
    interpose::reset();
    EXPECT_EQ(control::describe(control::census()), "nothing");
    // Below: some classes destroy one, too, that could not be made.
    EXPECT_LE(interpose::liveSemaphores(), 0);
  }
};

/// The same in virtual time.
class TimedFaultTest : public FaultTest {
  const VirtualTime time_;
};

/// One body for both encoders of a kind.
template <typename Class>
class Both : public TimedFaultTest, public testing::WithParamInterface<const Class*> {};

/// Names the rows of a table, or classes.
struct NameOf {
  template <typename Case>
  std::string operator()(const testing::TestParamInfo<Case>& tested) const {
    if constexpr (std::is_pointer_v<Case>)
      return tested.param->name;
    else
      return tested.param.name;
  }
};

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_FAULTTEST_H
