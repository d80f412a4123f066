#ifndef TESSERA_TESTS_OMX_ENCODERS_OMXFIXTURE_H
#define TESSERA_TESTS_OMX_ENCODERS_OMXFIXTURE_H

#include <gtest/gtest.h>
#include <semaphore.h>
#include <tessera/COmxH264Encoder.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera_platform/control.h>

#include <string>
#include <vector>

#include "support/Capture.h"
#include "support/Interpose.h"
#include "support/Pictures.h"

/// Sees the semaphores of an encoder: state, ports, flush, output.
struct TesseraLayout {
  template <typename Encoder>
  static std::vector<int> counts(Encoder& encoder) {
    std::vector<int> counts;
    for (sem_t* semaphore : {&encoder.semStateChanged, &encoder.semPortEnableDisable,
                             &encoder.semFlushed, &encoder.semOutputFilled}) {
      counts.push_back(-1);
      sem_getvalue(semaphore, &counts.back());
    }
    return counts;
  }
};

/// One platform call of a conversation, and what a refusal with OMX_ErrorInsufficientResources
/// leads to.
struct Refusal {
  const char* call;
  std::string label;   ///< of the line on standard error; empty: no such line
  std::string line;    ///< the class's own line after it
  bool works = false;  ///< the operation succeeds all the same
  bool again = true;   ///< the next one on the same object succeeds
};

/// "label - 0x80001000:..." as PrintOmxError writes it.
inline std::string errorLine(const std::string& label) {
  if (label.empty()) return {};
  return label +
         " - 0x80001000:there were insufficient resources to perform the requested operation\n";
}

/// Faults are gone and everything is given back after each test; ten seconds take a tenth of one.
class OmxTest : public testing::Test {
 protected:
  void SetUp() override { support::interpose::hurry = 100; }
  void TearDown() override {
    tessera_platform::clearFaults();
    support::interpose::reset();
    EXPECT_EQ(tessera_platform::describe(tessera_platform::census()), "nothing");
  }

  /// Which call of its name the i-th of the conversation is, refused.
  static tessera_platform::CallFault refuse(const std::vector<Refusal>& calls, std::size_t i) {
    unsigned nth = 0;
    for (std::size_t k = 0; k <= i; ++k) nth += calls[k].call == calls[i].call;
    return {calls[i].call, nth, false, tessera_platform::CallFault::Fail,
            OMX_ErrorInsufficientResources};
  }

  static std::vector<std::string> names(const std::vector<Refusal>& calls) {
    std::vector<std::string> all;
    for (const Refusal& call : calls) all.push_back(call.call);
    return all;
  }

  static std::string journalText() {
    std::string text;
    for (const std::string& line : tessera_platform::journal(tessera_platform::Lines::Calls))
      text += line + "\n";
    return text;
  }
};

#endif  // TESSERA_TESTS_OMX_ENCODERS_OMXFIXTURE_H
