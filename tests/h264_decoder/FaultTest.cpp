#include <memory>

#include "H264Fixture.h"

namespace {

using control::CallFault;
using control::CompletionFault;
using Decoder = CMmalH264Decoder;

const support::H264Made& clip() {
  static const support::H264Made made = [] {
    support::H264Options options;
    options.width = 64;
    options.height = 48;
    options.frames = 3;
    return support::encodeH264(options);
  }();
  return made;
}

CodecStatus feed(IH264Decoder& decoder, std::size_t unit) {
  Bytes stream = clip().stream;
  const std::size_t from = clip().units[unit], to = clip().units[unit + 1];
  return decoder.ProcessInput(&stream[from], static_cast<unsigned int>(to - from), 64, 48, 0, 40);
}

CodecStatus take(IH264Decoder& decoder) {
  Bytes frame(64 * 48 * 3 / 2);
  unsigned int size = 0, width = 9, height = 9;
  unsigned long long timestamp = 9;
  const CodecStatus status =
      decoder.ProcessOutput(frame.data(), length(frame), size, width, height, timestamp);
  EXPECT_EQ(timestamp, status == CodecOk ? 40u : 0u);
  EXPECT_EQ(width, status == CodecOk ? 64u : 0u);
  return status;
}

void expectWorks(IH264Decoder& decoder) {
  for (std::size_t unit = 0; unit < 3; ++unit) {
    ASSERT_EQ(feed(decoder, unit), CodecOk);
    // Counts left over from before a Create make calls return early; a slow machine needs time.
    CodecStatus status = CodecNoBuffer;
    for (int i = 0; i < 50 && (status == CodecNoBuffer || status == CodecTimeout); ++i)
      status = take(decoder);
    ASSERT_EQ(status, CodecOk);
  }
}

std::unique_ptr<Decoder> ready() {
  auto decoder = std::make_unique<Decoder>();
  EXPECT_TRUE(decoder->Initialize());
  EXPECT_TRUE(decoder->Create(64, 48, 0, nullptr));
  return decoder;
}

class DecoderFaults : public H264Test {};

TEST_F(DecoderFaults, TheFactoryReportsAMissingComponent) {
  IH264Decoder* decoder = nullptr;
  EXPECT_EQ(CreateH264Decoder(nullptr), 0);
  EXPECT_EQ(FreeH264Decoder(nullptr), 0);
  for (const auto action : {CallFault::Fail, CallFault::NullResult}) {
    control::inject(CallFault{"mmal_component_create", 1, false, action, 7});
    expectAnswer<int>([&] { return CreateH264Decoder(&decoder); }, 0, "",
                      std::string("CMmalH264Decoder::Initialize - failed to create mmal decoder "
                                  "component. Error code [") +
                          (action == CallFault::Fail ? "0x7]\n" : "0x0]\n"));
    EXPECT_EQ(decoder, nullptr);
    control::clearFaults();
  }
  ASSERT_EQ(CreateH264Decoder(&decoder), 1);
  EXPECT_EQ(FreeH264Decoder(decoder), 1);
}

TEST_F(DecoderFaults, CreateReportsItsSteps) {
  const std::string name = "CMmalH264Decoder::";
  const struct {
    const char* call;
    unsigned int nth;
    std::string lines;
  } rows[] = {
      {"mmal_port_format_commit", 1,
       name + "SetInputFormat - failed to set format for input port[0x7]\n" + name +
           "Create - SetInputFormat failed with 0x7\n"},
      {"mmal_port_format_commit", 2,
       name + "SetOutputFormat - failed to set format for input port[0x7]\n" + name +
           "Create - SetOutputFormat failed with 0x7\n"},
      {"mmal_port_enable", 1, name + "Create - enable input port failed. Error code [0x7]\n"},
      {"mmal_pool_create", 1,
       name + "Create - creating pool for input port failed. Params(4, 3072)\n"},
      {"mmal_port_enable", 2, name + "Create - enable output port failed. Error code [0x7]\n"},
      {"mmal_pool_create", 2, name + "Create - creating pool for output port failed. Params("},
      {"mmal_component_enable", 1, name + "Create - enabling decoder failed. Error code [0x7]\n"},
  };
  for (const auto& row : rows) {
    for (const bool again : {false, true}) {
      SCOPED_TRACE(row.call);
      Decoder decoder;
      ASSERT_TRUE(decoder.Initialize());
      if (again) {
        ASSERT_TRUE(decoder.Create(64, 48, 0, nullptr));
      }
      if (again) {
        ASSERT_EQ(feed(decoder, 0), CodecOk);
      }
      {
        support::Capture capture;
        control::inject(CallFault{row.call, row.nth, false, CallFault::Fail, 7});
        EXPECT_FALSE(decoder.Create(64, 48, 0, nullptr));
        EXPECT_EQ(capture.err().substr(0, row.lines.size()), row.lines);
        EXPECT_EQ(control::faultsHit(), 1u);
        control::clearFaults();
        EXPECT_EQ(feed(decoder, 0), again ? CodecInvalidState : CodecStreamMismatch);
        EXPECT_EQ(take(decoder), CodecInvalidState);
      }
      ASSERT_TRUE(decoder.Create(64, 48, 0, nullptr));
      expectWorks(decoder);
    }
  }
}

TEST_F(DecoderFaults, NoRoomForExtraDataIsNoFailure) {
  Decoder decoder;
  ASSERT_TRUE(decoder.Initialize());
  for (const auto action : {CallFault::Fail, CallFault::NullResult}) {
    control::inject(CallFault{"mmal_format_extradata_alloc", 1, false, action, 1});
    expectAnswer<bool>(
        [&] {
          return decoder.Create(64, 48, 4, reinterpret_cast<const unsigned char*>("\0\0\1\12"));
        },
        true, "", "");
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
  }
  expectWorks(decoder);
}

TEST_F(DecoderFaults, SemaphoresThatCannotBeMadeAreReported) {
  const char* const which[] = {"input", "output"};
  for (int nth : {1, 2}) {
    support::interpose::semInit.arm(nth);
    expectAnswer<bool>([] { return Decoder(), true; }, true, "",
                       std::string("CMmalH264Decoder::CMmalH264Decoder - failed to create ") +
                           which[nth - 1] + " semaphore\n");
  }
}

TEST_F(DecoderFaults, BadArgumentsAndStates) {
  Decoder decoder;
  unsigned char byte = 0;
  unsigned int size = 77, width = 9, height = 9;
  unsigned long long timestamp = 9;
  const std::string name = "CMmalH264Decoder::";
  const auto input = [&](unsigned char* data, unsigned int count, int w, int h) {
    return [=, &decoder] { return decoder.ProcessInput(data, count, w, h, 0, 0); };
  };
  const auto output = [&](unsigned char* data, unsigned int capacity) {
    return [=, &decoder, &size, &width, &height, &timestamp] {
      width = height = 9;
      timestamp = 9;
      return decoder.ProcessOutput(data, capacity, size, width, height, timestamp);
    };
  };
  const auto expect = [&](const std::function<CodecStatus()>& call, CodecStatus status,
                          const std::string& line) {
    expectAnswer<CodecStatus>(call, status, "", line.empty() ? "" : name + line);
  };
  const auto expectFalse = [&](const std::function<bool()>& call, const std::string& lines) {
    expectAnswer<bool>(call, false, "", lines);
  };
  expectFalse([&] { return decoder.Create(64, 48, 0, nullptr); },
              name + "Create - invalid state [(nil)]\n");
  expect(input(nullptr, 0, 64, 48), CodecInvalidArgument,
         "ProcessInput - invalid input arguments [(nil)][0]\n");
  expect(input(nullptr, 5, 64, 48), CodecInvalidArgument,
         "ProcessInput - invalid input arguments [(nil)][5]\n");
  expect(input(&byte, 1, 640, 480), CodecStreamMismatch,
         "ProcessInput - invalid stream setup input[640x480] decoder[0x0]. Use Create callback.\n");
  expect(input(&byte, 1, 0, 0), CodecInvalidState,
         "ProcessInput - invalid state [(nil)] [(nil)]\n");
  expect(output(nullptr, 5), CodecInvalidArgument,
         "ProcessOutput - invalid input parameters [(nil)][5]\n");
  expect(
      [&] {
        return decoder.ProcessOutput(static_cast<unsigned char**>(nullptr), size, width, height,
                                     timestamp);
      },
      CodecInvalidArgument, "ProcessOutput - invalid input argument\n");
  EXPECT_EQ(width + height + timestamp, 0u);
  {
    support::Capture quiet;
    EXPECT_EQ(output(&byte, 0)(), CodecInvalidArgument);
    EXPECT_EQ(output(&byte, 1)(), CodecInvalidState);
    EXPECT_EQ(width + height + timestamp, 0u);
    EXPECT_EQ(size, 77u);
  }
  ASSERT_TRUE(decoder.Initialize());
  expectFalse([&] { return decoder.Create(0, 480, 0, nullptr); },
              name + "SetInputFormat - image dimensions are not supported 0x480\n" + name +
                  "Create - SetInputFormat failed with 0x3\n");
  ASSERT_TRUE(decoder.Create(-64, 48, 0, nullptr));
  expect(
      input(&byte, 1, 64, 48), CodecStreamMismatch,
      "ProcessInput - invalid stream setup input[64x48] decoder[-64x48]. Use Create callback.\n");
  expect(input(&byte, 0, -64, 48), CodecNoBuffer, "");
  expectAnswer<MMAL_STATUS_T>([&] { return decoder.SetOutputFormat(nullptr, 64, 0); }, MMAL_EINVAL,
                              "",
                              name + "SetOutputFormat - image dimensions are not supported 64x0\n");
}

TEST_F(DecoderFaults, ARefusedPieceTakesNothing) {
  const auto decoder = ready();
  control::inject(CallFault{"mmal_port_send_buffer", 1, false, CallFault::Fail, 7});
  expectAnswer<CodecStatus>(
      [&] { return feed(*decoder, 0); }, CodecSendFailed,
      "CMmalH264Decoder::ProcessInput - send input buffer failed. Error code [0x7]\n", "");
  control::clearFaults();
  expectWorks(*decoder);
}

TEST_F(DecoderFaults, WhatDoesNotFitIsToldAndGone) {
  const auto decoder = ready();
  ASSERT_EQ(feed(*decoder, 0), CodecOk);
  unsigned char byte = 0xA5;
  unsigned int size = 0, width = 9, height = 9;
  unsigned long long timestamp = 9;
  EXPECT_EQ(
      patiently([&] { return decoder->ProcessOutput(&byte, 1, size, width, height, timestamp); }),
      CodecBufferTooSmall);
  EXPECT_EQ(size, 64u * 48 * 3 / 2);
  EXPECT_EQ(width + height + timestamp, 0u);
  EXPECT_EQ(byte, 0xA5);
  ASSERT_EQ(feed(*decoder, 1), CodecOk);
  EXPECT_EQ(patiently([&] { return take(*decoder); }), CodecOk);
}

TEST_F(DecoderFaults, ShortOfMemoryItGivesTheBufferBack) {
  const auto decoder = ready();
  for (int round = 0; round < 8; ++round) {  // more often than there are buffers
    ASSERT_EQ(feed(*decoder, 0), CodecOk);
    unsigned char* frame = nullptr;
    unsigned int size = 0, width = 0, height = 0;
    unsigned long long timestamp = 0;
    support::interpose::allocation.arm(1);
    EXPECT_THROW(
        patiently([&] { return decoder->ProcessOutput(&frame, size, width, height, timestamp); }),
        std::bad_alloc);
    EXPECT_EQ(frame, nullptr);
  }
  expectWorks(*decoder);
}

TEST_F(DecoderFaults, WaitsEndOnTimeInAStormOfSignals) {
  const auto decoder = ready();
  control::inject(CompletionFault{"input", 1, true, CompletionFault::Drop, 0, 0});
  control::inject(CompletionFault{"output", 1, true, CompletionFault::Drop, 0, 0});
  ASSERT_EQ(feed(*decoder, 0), CodecOk);
  for (const bool storm : {false, true}) {
    const std::unique_ptr<SignalStorm> signals(storm ? new SignalStorm : nullptr);
    expectAnswer<CodecStatus>([&] { return feed(*decoder, 1); }, CodecTimeout,
                              "CMmalH264Decoder::ProcessInput - timeout\n", "", 1000, 1250);
    expectAnswer<CodecStatus>([&] { return take(*decoder); }, CodecTimeout, "", "", 100, 350);
    if (storm) {
      EXPECT_GT(SignalStorm::received(), 1000);
    }
  }
}

TEST_F(DecoderFaults, BrokenWaitsAreReported) {
  const auto decoder = ready();
  for (auto* broken : {&support::interpose::clockGettime, &support::interpose::semWait}) {
    broken->arm(1, true);
    expectAnswer<CodecStatus>([&] { return feed(*decoder, 0); }, CodecWaitFailed,
                              "CMmalH264Decoder::ProcessInput - wait failed [0x4]\n", "");
    expectAnswer<CodecStatus>([&] { return take(*decoder); }, CodecWaitFailed,
                              "CMmalH264Decoder::ProcessOutput - wait failed [0x4]\n", "");
    broken->disarm();
  }
  expectWorks(*decoder);
}

/// Data longer than a buffer goes out in pieces, with a line for each but the last.
TEST_F(DecoderFaults, TheConversationReadsLikeThis) {
  control::startJournal();
  std::string lines;
  {
    Decoder decoder;
    decoder.Initialize();
    const unsigned char extra[]{0, 0, 0, 1, 10};
    decoder.Create(100, 50, sizeof(extra), extra);
    Bytes data(12000, 0xFF);
    {
      support::Capture capture;
      decoder.ProcessInput(data.data(), length(data), 100, 50, 1, 40);
      lines = capture.out();
    }
    decoder.Create(64, 48, 0, nullptr);
  }
  control::stopJournal();
  const std::string bigger =
      "CMmalH264Decoder::ProcessInput - input image buffer [12000] is bigger than input mmal "
      "buffer[5000]\n";
  EXPECT_EQ(lines, bigger + bigger);

  const auto port = [](const char* call, const std::string& arguments) {
    return "mmal_port_" + std::string(call) + "(video_decode#1:" + arguments + ") = SUCCESS";
  };
  const auto sent = [&](const std::string& pool, const std::string& to) {
    return Strings{"mmal_queue_get(" + pool + ") = buffer", port("send_buffer", to)};
  };
  const Strings acquire{"mmal_component_acquire(video_decode#1)"};
  const Strings release{"mmal_component_release(video_decode#1) = SUCCESS"};
  const Strings disable{"mmal_component_disable(video_decode#1) = SUCCESS"};
  const auto formats = [&](const std::string& size, const std::string& extraData) {
    return Strings{
        port("format_commit", "in0, H264 " + size + " rate 30/1 aspect 1/1 framed" + extraData),
        port("format_commit", "out0, I420 " + size + " rate 0/0 aspect 1/1")};
  };
  const auto start = [&](const std::string& input, const std::string& output, const std::string& in,
                         const std::string& out) {
    const Strings each = sent(out, "out0, empty");
    return joined(
        {{port("enable", "in0, 4 x " + input), "mmal_pool_create(4 x " + input + ") = " + in,
          port("enable", "out0, 4 x " + output), "mmal_pool_create(4 x " + output + ") = " + out,
          "mmal_component_enable(video_decode#1) = SUCCESS"},
         each,
         each,
         each,
         each,
         {"mmal_queue_get(" + out + ") = null"}});
  };
  const Strings given{"mmal_queue_get(queue#2) = buffer", "mmal_buffer_header_release()"};
  const Strings expected =
      joined({{"bcm_host_init()", "mmal_queue_create() = queue#1",
               "mmal_component_create(vc.ril.video_decode) = SUCCESS"},
              // Create
              {port("flush", "out0")},
              disable,
              {"mmal_queue_destroy(queue#1)", "mmal_queue_create() = queue#2"},
              acquire,
              {"mmal_format_extradata_alloc(5 bytes) = SUCCESS"},
              formats("128x64 crop 0,0 100x50", " extradata 5"),
              start("5000", "12288", "pool#1", "pool#2"),
              release,
              // ProcessInput
              acquire,
              sent("pool#1", "in0, 5000 bytes FRAME_START|DECODEONLY pts 40000"),
              sent("pool#1", "in0, 5000 bytes DECODEONLY pts 40000"),
              sent("pool#1", "in0, 2000 bytes FRAME_END|DECODEONLY pts 40000"),
              release,
              // Create again
              {port("disable", "in0"), "mmal_pool_destroy(pool#1)", port("flush", "out0"),
               port("disable", "out0")},
              given,
              given,
              given,
              given,
              {"mmal_queue_get(queue#2) = null", "mmal_pool_destroy(pool#2)"},
              disable,
              {"mmal_queue_destroy(queue#2)", "mmal_queue_create() = queue#3"},
              acquire,
              formats("64x48 crop 0,0 64x48", ""),
              start("3072", "4608", "pool#3", "pool#4"),
              release,
              // destruction
              {port("disable", "in0"), port("flush", "out0"), port("disable", "out0")},
              disable,
              {"mmal_component_destroy(video_decode#1) = SUCCESS", "mmal_queue_destroy(queue#3)",
               "mmal_pool_destroy(pool#3)", "mmal_pool_destroy(pool#4)"}});
  EXPECT_EQ(text(control::journal(control::Lines::Calls)), text(expected));
}

}  // namespace
