#include "H264Fixture.h"

namespace {

using control::CallFault;
using control::CompletionFault;
using Encoder = CMmalH264Encoder;

bool create(IH264Encoder& encoder, int width = 64, int height = 48) {
  return encoder.Create(i420, width, height, 30, 1, 1, 1, 500000);
}

CodecStatus feed(IH264Encoder& encoder, int t = 0) {
  Bytes frame = support::padded(support::toYuv(support::scene(64, 48, t)));
  return encoder.ProcessInput(frame.data(), length(frame), 0, 0);
}

CodecStatus take(IH264Encoder& encoder, Bytes& data) {
  unsigned int size = 0, flags = 9;
  data.resize(100000);
  const CodecStatus status = encoder.ProcessOutput(data.data(), length(data), size, flags);
  data.resize(size);
  if (status != CodecOk) {
    EXPECT_EQ(flags, 0u);
  }
  return status;
}

/// Three frames in, three pictures out.
void expectWorks(IH264Encoder& encoder) {
  Bytes stream, data;
  for (int t = 0; t < 3; ++t) {
    ASSERT_EQ(feed(encoder, t), CodecOk);
    for (int buffer = 0; buffer < (t == 0 ? 2 : 1); ++buffer) {
      ASSERT_EQ(patiently([&] { return take(encoder, data); }), CodecOk);
      stream.insert(stream.end(), data.begin(), data.end());
    }
  }
  EXPECT_EQ(support::decodeH264(stream).pictures.size(), 3u);
}

class EncoderFaults : public H264Test {};

TEST_F(EncoderFaults, CreateRefusesInOrder) {
  const struct {
    unsigned int format;
    int width, height;
    unsigned int rateNum, rateDen, aspectNum, aspectDen;
    const char* line;
  } rows[] = {
      {0x3231564e, 0, 48, 0, 1, 0, 1, "image pixel format is not supported 0x3231564e."},
      {i420, 0, -48, 0, 1, 0, 1, "image dimensions are not supported 0x-48"},
      {yuyv, 64, 0, 30, 1, 1, 1, "image dimensions are not supported 64x0"},
      {yuyv, 64, 48, 25, 0, 0, 1, "frame rate is not supported 25x0"},
      {i420, 64, 48, 0, 1, 1, 1, "frame rate is not supported 0x1"},
      {i420, 64, 48, 30, 1, 0, 1, "pixel aspect ratio is not supported 0x1"},
      {i420, 64, 48, 30, 1, 1, 0, "pixel aspect ratio is not supported 1x0"},
  };
  Encoder encoder;
  for (const auto& row : rows) {
    expectAnswer<bool>(
        [&] {
          return encoder.Create(row.format, row.width, row.height, row.rateNum, row.rateDen,
                                row.aspectNum, row.aspectDen, 500000);
        },
        false, "",
        std::string("CMmalH264Encoder::SetInputFormat - ") + row.line +
            "\nCMmalH264Encoder::Create - SetInputFormat failed with 0x3\n");
    // Nothing runs after that, even if something did before.
    support::Capture quiet;
    EXPECT_EQ(feed(encoder), CodecInvalidState);
    ASSERT_TRUE(create(encoder));
    expectWorks(encoder);
  }
}

TEST_F(EncoderFaults, CreateReportsItsSteps) {
  const std::string name = "CMmalH264Encoder::";
  const std::string input = "Create - SetInputFormat failed with 0x7\n";
  const std::string output = "Create - SetOutputFormat failed with 0x7\n";
  const struct {
    const char* call;
    unsigned int nth;
    std::string lines;
  } rows[] = {
      {"mmal_port_format_commit", 1,
       name + "SetInputFormat - failed to set format for input port[0x7]\n" + name + input},
      {"mmal_port_format_commit", 2,
       name + "SetOutputFormat - failed to set format for input port[0x7]\n" + name + output},
      {"mmal_port_parameter_set", 1,
       name + "SetOutputFormat - failed to set video profile. Error code [0x7]\n" + name + output},
      {"mmal_port_enable", 1, name + "Create - enable input port failed. Error code [0x7]\n"},
      {"mmal_pool_create", 1, name + "Create - creating pool for input port failed. Params("},
      {"mmal_port_enable", 2, name + "Create - enable output port failed. Error code [0x7]\n"},
      {"mmal_pool_create", 2, name + "Create - creating pool for output port failed. Params("},
      {"mmal_component_enable", 1, name + "Create - enabling encoder failed. Error code [0x7]\n"},
      {"mmal_port_parameter_set_uint32", 1, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.call);
    Encoder encoder;
    {
      support::Capture capture;
      control::inject(CallFault{row.call, row.nth, false, CallFault::Fail, 7});
      EXPECT_EQ(create(encoder), row.lines.empty());
      EXPECT_EQ(capture.err().substr(0, row.lines.size()), row.lines);
      EXPECT_EQ(control::faultsHit(), 1u);
      control::clearFaults();
      if (!row.lines.empty()) {
        EXPECT_EQ(feed(encoder), CodecInvalidState);
      }
    }
    ASSERT_TRUE(create(encoder));
    expectWorks(encoder);
  }
}

TEST_F(EncoderFaults, APortThatStaysOpenIsReported) {
  for (const unsigned int nth : {1u, 2u}) {
    Encoder encoder;
    ASSERT_TRUE(create(encoder));
    expectWorks(encoder);
    support::Capture capture;
    control::inject(CallFault{"mmal_port_disable", nth, false, CallFault::Fail, 7});
    create(encoder, 32, 32);
    const std::string line = nth == 1 ? "SetInputFormat" : "SetOutputFormat";
    EXPECT_EQ(capture.err().find("CMmalH264Encoder::" + line +
                                 " - failed to disable input port. Error code [0x7]\n"),
              0u);
    control::clearFaults();
    ASSERT_TRUE(create(encoder));
    expectWorks(encoder);
  }
}

TEST_F(EncoderFaults, WithoutAComponentEveryCallSaysSo) {
  for (const auto action : {CallFault::Fail, CallFault::NullResult}) {
    control::inject(CallFault{"mmal_component_create", 1, false, action, 7});
    std::unique_ptr<Encoder> encoder;
    expectAnswer<bool>([&] { return (encoder = std::make_unique<Encoder>()) != nullptr; }, true, "",
                       std::string("CMmalH264Encoder::CMmalH264Encoder - failed to create mmal "
                                   "encoder component. Error code [") +
                           (action == CallFault::Fail ? "0x7]\n" : "0x0]\n"));
    expectAnswer<bool>([&] { return create(*encoder); }, false, "",
                       "CMmalH264Encoder::Create - invalid state [(nil)]\n");
    expectAnswer<CodecStatus>([&] { return feed(*encoder); }, CodecInvalidState, "",
                              "CMmalH264Encoder::ProcessInput - invalid state [(nil)] [(nil)]\n");
  }
}

TEST_F(EncoderFaults, SemaphoresThatCannotBeMadeAreReported) {
  const char* const which[] = {"input", "output"};
  for (int nth : {1, 2}) {
    support::interpose::semInit.arm(nth);
    expectAnswer<bool>([] { return Encoder(), true; }, true, "",
                       std::string("CMmalH264Encoder::CMmalH264Encoder - failed to create ") +
                           which[nth - 1] + " semaphore\n");
  }
}

TEST_F(EncoderFaults, BadArgumentsAndStates) {
  Encoder encoder;
  unsigned char byte = 0;
  unsigned char* array = &byte;
  unsigned int size = 77, flags = 9;
  const std::string in = "CMmalH264Encoder::ProcessInput - invalid ";
  const std::string out = "CMmalH264Encoder::ProcessOutput - invalid ";
  const auto expect = [](const std::function<CodecStatus()>& call, CodecStatus status,
                         const std::string& line) {
    expectAnswer<CodecStatus>(call, status, "", line);
  };
  expect([&] { return encoder.ProcessInput(nullptr, 0, 0, 0); }, CodecInvalidArgument,
         in + "input arguments [(nil)][0]\n");
  expect([&] { return encoder.ProcessInput(nullptr, 5, 0, 0); }, CodecInvalidArgument,
         in + "input arguments [(nil)][5]\n");
  expect([&] { return encoder.ProcessOutput(static_cast<unsigned char**>(nullptr), size, flags); },
         CodecInvalidArgument, out + "input argument\n");
  EXPECT_EQ(flags, 0u);
  expect(
      [&] { return encoder.ProcessOutput(static_cast<unsigned char*>(nullptr), 5, size, flags); },
      CodecInvalidArgument, out + "input parameters [(nil)][5]\n");
  support::Capture quiet;
  EXPECT_EQ(encoder.ProcessOutput(&byte, 0, size, flags), CodecInvalidArgument);
  EXPECT_EQ(encoder.ProcessInput(&byte, 1, 0, 0), CodecInvalidState);
  EXPECT_EQ(encoder.ProcessOutput(&byte, 1, size, flags), CodecInvalidState);
  EXPECT_EQ(encoder.ProcessOutput(&array, size, flags), CodecInvalidState);
  EXPECT_EQ(array, &byte);
  EXPECT_EQ(size, 77u);
  ASSERT_TRUE(create(encoder));
  // Too little data, or none, is encoded as far as it goes.
  EXPECT_EQ(encoder.ProcessInput(&byte, 0, 0, 0), CodecOk);
}

TEST_F(EncoderFaults, AFrameThatDoesNotGetAwayCanBeSentAgain) {
  Encoder encoder;
  ASSERT_TRUE(create(encoder));
  control::inject(CallFault{"mmal_port_send_buffer", 1, false, CallFault::Fail, 7});
  expectAnswer<CodecStatus>(
      [&] { return feed(encoder); }, CodecSendFailed,
      "CMmalH264Encoder::ProcessInput - send input buffer failed. Error code [0x7]\n", "");
  control::clearFaults();
  control::inject(CallFault{"mmal_queue_get", 1, false, CallFault::Fail, 0});
  expectAnswer<CodecStatus>([&] { return feed(encoder); }, CodecNoBuffer, "", "");
  control::clearFaults();
  expectWorks(encoder);
}

TEST_F(EncoderFaults, ARefusedOutputBufferIsNotLost) {
  Encoder encoder;
  control::inject(CallFault{"mmal_port_send_buffer", 1, false, CallFault::Fail, 7});
  ASSERT_TRUE(create(encoder));
  EXPECT_EQ(control::faultsHit(), 1u);
  expectWorks(encoder);
}

TEST_F(EncoderFaults, WhatDoesNotFitIsToldAndGone) {
  Encoder encoder;
  ASSERT_TRUE(create(encoder));
  ASSERT_EQ(feed(encoder), CodecOk);
  unsigned char byte = 0xA5;
  unsigned int size = 0, flags = 9;
  EXPECT_EQ(patiently([&] { return encoder.ProcessOutput(&byte, 1, size, flags); }),
            CodecBufferTooSmall);
  EXPECT_GT(size, 10u);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(byte, 0xA5);
  Bytes data;
  // The frame, after the parameter sets.
  EXPECT_EQ(patiently([&] { return take(encoder, data); }), CodecOk);
  EXPECT_EQ(data[4] & 31, 5);
}

TEST_F(EncoderFaults, ShortOfMemoryItGivesTheBufferBack) {
  Encoder encoder;
  ASSERT_TRUE(create(encoder));
  for (int t = 0; t < 8; ++t) {  // more often than there are buffers
    ASSERT_EQ(feed(encoder, t), CodecOk);
    unsigned char* array = nullptr;
    unsigned int size = 0, flags = 0;
    support::interpose::allocation.arm(1, true);
    const auto output = [&] { return encoder.ProcessOutput(&array, size, flags); };
    for (int buffer = 0; buffer < (t == 0 ? 2 : 1); ++buffer)
      EXPECT_THROW(patiently(output), std::bad_alloc);
    support::interpose::allocation.disarm();
    EXPECT_EQ(array, nullptr);
  }
  ASSERT_EQ(feed(encoder, 8), CodecOk);
  Bytes data;
  EXPECT_EQ(patiently([&] { return take(encoder, data); }), CodecOk);
}

TEST_F(EncoderFaults, WaitsEndOnTimeInAStormOfSignals) {
  Encoder encoder;
  ASSERT_TRUE(create(encoder));
  control::inject(CompletionFault{"input", 1, true, CompletionFault::Drop, 0, 0});
  control::inject(CompletionFault{"output", 1, true, CompletionFault::Drop, 0, 0});
  for (const bool storm : {false, true}) {
    // One credit, after a second Create too.
    ASSERT_TRUE(create(encoder));
    ASSERT_EQ(feed(encoder), CodecOk);
    const std::unique_ptr<SignalStorm> signals(storm ? new SignalStorm : nullptr);
    expectAnswer<CodecStatus>([&] { return feed(encoder, 1); }, CodecTimeout,
                              "CMmalH264Encoder::ProcessInput - timeout\n", "", 1000, 1250);
    Bytes data;
    expectAnswer<CodecStatus>([&] { return take(encoder, data); }, CodecTimeout,
                              "CMmalH264Encoder::ProcessOutput - timeout\n", "", 100, 350);
    if (storm) {
      EXPECT_GT(SignalStorm::received(), 1000);
    }
  }
}

TEST_F(EncoderFaults, BrokenWaitsAreReported) {
  Encoder encoder;
  ASSERT_TRUE(create(encoder));
  Bytes data;
  for (auto* broken : {&support::interpose::clockGettime, &support::interpose::semWait}) {
    broken->arm(1, true);
    expectAnswer<CodecStatus>([&] { return feed(encoder); }, CodecWaitFailed,
                              "CMmalH264Encoder::ProcessInput - wait failed [0x4]\n", "");
    expectAnswer<CodecStatus>([&] { return take(encoder, data); }, CodecWaitFailed,
                              "CMmalH264Encoder::ProcessOutput - wait failed [0x4]\n", "");
    broken->disarm();
  }
  expectWorks(encoder);
}

TEST_F(EncoderFaults, TheConversationReadsLikeThis) {
  control::startJournal();
  {
    Encoder encoder;
    create(encoder, 100, 50);
    Bytes frame(128 * 64 * 3 / 2), data;
    encoder.ProcessInput(frame.data(), length(frame), 0, 0);
    awaitOutputs(2);
    for (int buffer = 0; buffer < 2; ++buffer) take(encoder, data);
    create(encoder, 64, 48);
  }
  control::stopJournal();
  const Strings acquire{"mmal_component_acquire(video_encode#1)"};
  const Strings release{"mmal_component_release(video_encode#1) = SUCCESS"};
  const auto port = [](const char* call, const std::string& arguments) {
    return "mmal_port_" + std::string(call) + "(video_encode#1:" + arguments + ") = SUCCESS";
  };
  const auto formats = [&](const std::string& format, bool again) {
    const std::string common = format + " rate 30/1 aspect 1/1";
    Strings lines{port("format_commit", "in0, I420 " + common),
                  "mmal_format_copy(I420 " + common + ")",
                  port("format_commit", "out0, H264 " + common + " 500000 bit/s"),
                  port("parameter_set", "out0, PROFILE 28 32"),
                  port("parameter_set_uint32", "out0, INTRAPERIOD 30")};
    if (again) {
      lines.insert(lines.begin() + 1, port("disable", "out0"));
      lines.insert(lines.begin(), port("disable", "in0"));
    }
    return lines;
  };
  const auto sent = [&](const std::string& pool) {
    return Strings{"mmal_queue_get(" + pool + ") = buffer", port("send_buffer", "out0, empty")};
  };
  const auto start = [&](const std::string& bytes, const std::string& in, const std::string& out) {
    return joined(
        {{port("enable", "in0, 1 x " + bytes), "mmal_pool_create(1 x " + bytes + ") = " + in,
          port("enable", "out0, 2 x 65536"), "mmal_pool_create(2 x 65536) = " + out,
          "mmal_component_enable(video_encode#1) = SUCCESS"},
         sent(out),
         sent(out),
         {"mmal_queue_get(" + out + ") = null"}});
  };
  const Strings given{"mmal_queue_get(queue#1) = buffer", "mmal_buffer_header_release()"};
  const Strings output =
      joined({acquire, given, sent("pool#2"), {"mmal_queue_get(pool#2) = null"}, release});
  const Strings expected = joined(
      {{"bcm_host_init()", "mmal_queue_create() = queue#1",
        "mmal_component_create(vc.ril.video_encode) = SUCCESS"},
       // Create
       acquire,
       formats("128x64 crop 0,0 100x50", false),
       start("12288", "pool#1", "pool#2"),
       release,
       // ProcessInput, and ProcessOutput for the parameter sets and the frame
       acquire,
       {"mmal_queue_get(pool#1) = buffer",
        port("send_buffer", "in0, 12288 bytes FRAME_START|FRAME_END")},
       release,
       output,
       output,
       // Create again
       acquire,
       formats("64x48 crop 0,0 64x48", true),
       given,
       given,
       {"mmal_queue_get(queue#1) = null", "mmal_pool_destroy(pool#1)", "mmal_pool_destroy(pool#2)"},
       start("4608", "pool#3", "pool#4"),
       release,
       // destruction
       {port("disable", "in0"), port("flush", "out0"), port("disable", "out0"),
        "mmal_component_disable(video_encode#1) = SUCCESS",
        "mmal_component_destroy(video_encode#1) = SUCCESS", "mmal_queue_destroy(queue#1)",
        "mmal_pool_destroy(pool#3)", "mmal_pool_destroy(pool#4)"}});
  EXPECT_EQ(text(control::journal(control::Lines::Calls)), text(expected));
}

}  // namespace
