#include <gtest/gtest.h>
#include <tessera/CMmalJpegEncoder.h>
#include <tessera_platform/control.h>

#include <chrono>

#include "JpegFixture.h"
#include "support/Capture.h"
#include "support/Interpose.h"

namespace {

namespace control = tessera_platform;
using control::CallFault;
using control::CompletionFault;
using support::Image;
using Strings = std::vector<std::string>;

class JpegFaults : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override {
    control::clearFaults();
    support::interpose::reset();
    EXPECT_TRUE(control::census().empty()) << control::describe(control::census());
  }

  static void expectGood(CMmalJpegEncoder& encoder, int t) {
    const Image image = support::scene(160, 96, t);
    const Encoded ours = encode(encoder, image, 0);
    ASSERT_EQ(ours.result, 1);
    EXPECT_GT(support::psnr(support::decodeJpegToRgb(ours.jpeg).rgb, image.rgb), 30) << t;
  }
};

TEST_F(JpegFaults, SetupReportsItsSteps) {
  const std::string start = "CMmalJpegEncoder::Initialize - failed to ";
  const struct {
    const char* call;
    unsigned int nth;
    CallFault::Action action;
    const char* step;
  } rows[] = {
      {"mmal_wrapper_create", 1, CallFault::Fail, "create mmal component\n"},
      {"mmal_wrapper_create", 1, CallFault::NullResult, "create mmal component\n"},
      {"mmal_port_format_commit", 1, CallFault::Fail, "commit input port format\n"},
      {"mmal_wrapper_port_enable", 1, CallFault::Fail, "enable input port\n"},
      {"mmal_port_format_commit", 2, CallFault::Fail, "commit output port format\n"},
      {"mmal_wrapper_port_enable", 2, CallFault::Fail, "enable output port\n"},
      {"mmal_port_parameter_set_uint32", 1, CallFault::Fail, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.call);
    CMmalJpegEncoder encoder;
    support::Capture capture;
    control::inject(CallFault{row.call, row.nth, false, row.action, 7});
    EXPECT_EQ(encode(encoder, support::scene(64, 48), 0).result, row.step == nullptr ? 1 : 0);
    EXPECT_EQ(capture.err(), row.step == nullptr ? "" : start + row.step);
    EXPECT_EQ(capture.out(),
              row.step == nullptr ? "" : "CMmalJpegEncoder::Encode - initialization failed\n");
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
    expectGood(encoder, 1);
  }
}

TEST_F(JpegFaults, NoSemaphoreNoSetup) {
  CMmalJpegEncoder encoder;
  {
    support::Capture capture;
    support::interpose::semInit.arm(1);
    EXPECT_EQ(encode(encoder, support::scene(64, 48), 0).result, 0);
    EXPECT_EQ(capture.err(), "CMmalJpegEncoder::Initialize - failed to create semaphore\n");
  }
  expectGood(encoder, 0);
}

TEST_F(JpegFaults, RefusedInputFailsTheCallOnly) {
  CMmalJpegEncoder encoder;
  expectGood(encoder, 0);
  {
    support::Capture capture;
    // Once an output buffer has gone, the next buffer sent is the frame.
    control::inject(CallFault{"mmal_port_send_buffer", 2, false, CallFault::Fail, 1});
    EXPECT_EQ(encode(encoder, support::scene(160, 96, 1), 0).result, 0);
    EXPECT_EQ(capture.err(), "CMmalJpegEncoder::Encode - failed to send buffer\n");
    EXPECT_EQ(capture.out(), "");
  }
  control::clearFaults();
  for (int t = 2; t < 6; ++t) expectGood(encoder, t);
}

TEST_F(JpegFaults, RefusedOutputIsTriedAgain) {
  CMmalJpegEncoder encoder;
  for (const char* call : {"mmal_port_send_buffer", "mmal_wrapper_buffer_get_empty"}) {
    support::Capture capture;
    control::inject(CallFault{call, 1, false, CallFault::Fail, 1});
    expectGood(encoder, 0);
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
  }
}

TEST_F(JpegFaults, NoAnswerEndsTheCallAndTheNextOneIsNotFooled) {
  using namespace std::chrono;
  support::interpose::hurry = 50;  // ten seconds become 200 ms
  for (const CompletionFault& fault :
       {CompletionFault{"wrapper", 1, true, CompletionFault::Drop, 0, 0},
        CompletionFault{"wrapper", 1, true, CompletionFault::Delay, 400, 0}}) {
    CMmalJpegEncoder encoder;
    {
      support::Capture capture;
      control::inject(fault);
      const auto start = steady_clock::now();
      EXPECT_EQ(encode(encoder, support::scene(160, 96, 7), 0).result, 0);
      const auto took = duration_cast<milliseconds>(steady_clock::now() - start).count();
      EXPECT_GE(took, 195);
      EXPECT_LE(took, 4000);  // with a busy machine's time for taking the component down
      EXPECT_EQ(capture.out(), "CMmalJpegEncoder::Encode - timeout\n");
      EXPECT_EQ(capture.err(), "");
    }
    control::clearFaults();
    for (int t = 0; t < 3; ++t) expectGood(encoder, t);
  }
}

TEST_F(JpegFaults, AnEmptyAnswerIsNoPicture) {
  CMmalJpegEncoder encoder;
  {
    support::Capture capture;
    control::inject(CompletionFault{"wrapper", 1, true, CompletionFault::ZeroLength, 0, 0});
    const Encoded empty = encode(encoder, support::scene(160, 96), 0);
    EXPECT_EQ(empty.result, 0);
    EXPECT_EQ(empty.size, 0xDEADu);
    EXPECT_EQ(capture.out(), "CMmalJpegEncoder::Encode - the component delivered no picture\n");
  }
  control::clearFaults();
  expectGood(encoder, 1);
}

TEST_F(JpegFaults, BrokenClockOrSemaphoreDoesNotStopIt) {
  for (support::interpose::Failing* broken :
       {&support::interpose::clockGettime, &support::interpose::semWait}) {
    CMmalJpegEncoder encoder;
    broken->arm(1, true);
    for (int t = 0; t < 3; ++t) expectGood(encoder, t);
    EXPECT_GT(broken->met.load(), 0);
    broken->disarm();
  }
}

TEST_F(JpegFaults, ShortOfMemoryLeavesNothingBehind) {
  CMmalJpegEncoder encoder;
  support::Bytes frame = rawFrame(support::scene(160, 96), 0);
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  support::interpose::allocation.arm(1);
  EXPECT_THROW(encoder.EncodeYUYV(frame.data(), static_cast<unsigned int>(frame.size()), 160, 96,
                                  &jpeg, size),
               std::bad_alloc);
  support::interpose::allocation.disarm();
  EXPECT_TRUE(control::census().empty());
  expectGood(encoder, 0);
}

TEST_F(JpegFaults, AnErrorOfTheComponentEndsTheProcess) {
  const auto work = [](bool event) {
    CMmalJpegEncoder encoder;
    if (event)
      control::inject(CompletionFault{"wrapper", 1, false, CompletionFault::ErrorEvent, 0, 7});
    else
      control::inject(CallFault{"mmal_wrapper_buffer_get_full", 1, false, CallFault::Fail, 7});
    encode(encoder, support::scene(64, 48), 0);
  };
  const char* const line = "^CMmalJpegEncoder::Encode - failed to get full buffer\n$";
  EXPECT_EXIT(work(false), testing::ExitedWithCode(1), line);
  EXPECT_EXIT(work(true), testing::ExitedWithCode(1), line);
}

TEST_F(JpegFaults, AnAnswerThatComesTwiceAnswersOnce) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "a buffer handed over twice races with its reader, by definition";
#endif
  CMmalJpegEncoder encoder;
  control::inject(CompletionFault{"wrapper", 1, true, CompletionFault::Double, 0, 0});
  for (int t = 0; t < 50; ++t) expectGood(encoder, t);
}

Strings setup(const std::string& name, const std::string& input, const std::string& inputBuffers,
              const std::string& outputBuffers) {
  return {
      "mmal_wrapper_create(vc.ril.image_encode) = SUCCESS",
      "mmal_port_format_commit(" + name + ":in0, " + input + " rate 0/0 aspect 0/0) = SUCCESS",
      "mmal_wrapper_port_enable(" + name + ":in0, " + inputBuffers + ", flags 2) = SUCCESS",
      "mmal_port_format_commit(" + name +
          ":out0, JPEG 0x0 crop 0,0 0x0 rate 0/0 aspect 0/0) = SUCCESS",
      "mmal_port_parameter_set_uint32(" + name + ":out0, JPEG_Q_FACTOR 75) = SUCCESS",
      "mmal_wrapper_port_enable(" + name + ":out0, " + outputBuffers + ", flags 2) = SUCCESS",
  };
}

Strings frame(const std::string& name, const std::string& payload) {
  return {
      "mmal_wrapper_buffer_get_empty(" + name + ":out0) = SUCCESS",
      "mmal_port_send_buffer(" + name + ":out0, empty) = SUCCESS",
      "mmal_wrapper_buffer_get_empty(" + name + ":in0) = SUCCESS",
      "mmal_port_send_buffer(" + name + ":in0, " + payload + " bytes EOS) = SUCCESS",
      "mmal_wrapper_buffer_get_full(" + name + ":out0) = SUCCESS",
      "mmal_buffer_header_release()",
  };
}

Strings teardown(const std::string& name) {
  return {"mmal_port_flush(" + name + ":out0) = SUCCESS",
          "mmal_wrapper_destroy(" + name + ") = SUCCESS"};
}

TEST_F(JpegFaults, TheConversationReadsLikeThis) {
  control::startJournal();
  {
    CMmalJpegEncoder encoder;
    for (int t : {0, 1}) encode(encoder, support::scene(100, 50, t), 0);
    encode(encoder, support::scene(64, 48), 24);
  }
  control::stopJournal();
  const std::string first = "image_encode#1", second = "image_encode#2";
  Strings expected{"bcm_host_init()"};
  for (const Strings& part : {setup(first, "YUYV 128x64 crop 0,0 100x50", "1 x 16384", "1 x 57344"),
                              frame(first, "16384"), frame(first, "16384"), teardown(first),
                              setup(second, "RGB3 64x48 crop 0,0 64x48", "1 x 9216", "1 x 19072"),
                              frame(second, "9216"), teardown(second)})
    expected.insert(expected.end(), part.begin(), part.end());
  EXPECT_EQ(control::journal(control::Lines::Calls), expected);
}

}  // namespace
