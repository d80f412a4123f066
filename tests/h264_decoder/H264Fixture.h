#ifndef TESSERA_TESTS_MMAL_H264_H264FIXTURE_H
#define TESSERA_TESTS_MMAL_H264_H264FIXTURE_H

#include <gtest/gtest.h>
#include <tessera/CMmalH264Decoder.h>
#include <tessera/CMmalH264Encoder.h>
#include <tessera_platform/control.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/Capture.h"
#include "support/H264Oracle.h"
#include "support/Interpose.h"

namespace control = tessera_platform;
using support::Bytes;

constexpr unsigned int i420 = 0x30323449;
constexpr unsigned int yuyv = 0x56595559;

inline unsigned int length(const Bytes& bytes) {
  return static_cast<unsigned int>(bytes.size());
}

using Strings = std::vector<std::string>;

inline Strings joined(const std::vector<Strings>& parts) {
  Strings all;
  for (const Strings& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// Lines as one text, whose differences are shown line by line.
inline std::string text(const Strings& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + '\n';
  return all;
}

/// Takes every fault away and finds nothing left behind.
class H264Test : public testing::Test {
 protected:
  void TearDown() override {
    control::clearFaults();
    support::interpose::reset();
    EXPECT_TRUE(control::census().empty()) << control::describe(control::census());
  }
};

/// Runs work, and expects its status, its lines and its duration in milliseconds.
template <typename Status>
void expectAnswer(const std::function<Status()>& work, Status expected, const std::string& out,
                  const std::string& err, int atLeastMs = 0, int atMostMs = 60000) {
  using namespace std::chrono;
  support::Capture capture;
  const auto start = steady_clock::now();
  EXPECT_EQ(work(), expected);
  const auto took = duration_cast<microseconds>(steady_clock::now() - start).count();
  EXPECT_EQ(capture.out(), out);
  EXPECT_EQ(capture.err(), err);
  EXPECT_GE(took, atLeastMs * 1000);
  EXPECT_LE(took, atMostMs * 1000);
}

/// Repeats a call of ProcessOutput that timed out: a slow machine gets some more time.
template <typename Call>
CodecStatus patiently(Call call) {
  CodecStatus status = CodecTimeout;
  for (int tries = 0; status == CodecTimeout && tries < 50; ++tries) status = call();
  return status;
}

/// Waits until the journal has that many output buffers delivered.
void awaitOutputs(int count);

/// SIGALRM from a timer and SIGUSR1 from a thread, as fast as they come, at the calling thread.
class SignalStorm {
 public:
  SignalStorm();
  ~SignalStorm();
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;
  static int received();

 private:
  struct Impl;
  Impl* impl_;
};

#endif  // TESSERA_TESTS_MMAL_H264_H264FIXTURE_H
