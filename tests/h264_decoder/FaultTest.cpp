#include "support/FaultTest.h"

#include <unistd.h>

#include <fstream>
#include <memory>
#include <numeric>
#include <thread>

#include "support/Calls.h"
#include "support/FaultTable.h"

namespace {

using namespace support;
using Decoder = CMmalH264Decoder;

const std::string name = "CMmalH264Decoder::";

constexpr unsigned frameBytes = 64 * 48 * 3 / 2;

void expectWorks(IH264Decoder& decoder) {
  for (int unit = 0; unit < 3; ++unit) {
    ASSERT_EQ(feed(decoder, unit), CodecOk);
    const Picture out = take(decoder);
    ASSERT_EQ(out.status, CodecOk);
    EXPECT_EQ(std::tie(out.size, out.width, out.height), std::make_tuple(frameBytes, 64u, 48u));
    EXPECT_EQ(out.timestamp, unit * 40u + 40) << "each unit's picture comes out at once";
  }
}

/// How many pieces the component may keep; it keeps them.
int credits(IH264Decoder& decoder) {
  const Capture quiet;
  inject(lose("input", 1, true));
  int count = 0;
  while (feed(decoder) == CodecOk) ++count;
  control::clearFaults();
  return count;
}

std::unique_ptr<Decoder> ready(bool created = true) {
  auto decoder = std::make_unique<Decoder>();
  EXPECT_TRUE(decoder->Initialize());
  EXPECT_EQ(created && decoder->Create(64, 48, 0, nullptr), created);
  return decoder;
}

using DecoderFaults = TimedFaultTest;
using DecoderThreads = FaultTest;

TEST_F(DecoderFaults, TheFactoryReportsAMissingComponent) {
  IH264Decoder* const other = ready(false).release();
  IH264Decoder* decoder = other;
  const std::string noLine;
  EXPECT_EQ(CreateH264Decoder(nullptr), 0);
  EXPECT_EQ(FreeH264Decoder(nullptr), 0);
  const std::string line =
      name + "Initialize - failed to create mmal decoder component. Error code [0x7]\n";
  for (const auto& [fault, told] : {std::pair(refuse("mmal_component_create"), line),
                                    std::pair(nullResult("mmal_component_create"), noLine)}) {
    inject(fault);
    expectAnswer<int>([&] { return CreateH264Decoder(&decoder); }, 0, "", told);
    control::clearFaults();
  }
  interpose::allocation.arm(1);
  EXPECT_THROW(CreateH264Decoder(&decoder), std::bad_alloc);
  EXPECT_EQ(decoder, other) << "a failure stores nothing";
  EXPECT_EQ(FreeH264Decoder(other), 1);
  ASSERT_EQ(CreateH264Decoder(&decoder), 1);
  EXPECT_EQ(FreeH264Decoder(decoder), 1);
}

TEST_F(DecoderFaults, HaveTheirLinesAndTheNextCreateWorks) {
  expectFaults("CMmalH264Decoder");
}

TEST_F(DecoderFaults, ExtraDataThatCannotBeKeptIsLeftOut) {
  const unsigned char extra[] = {0, 0, 0, 1, 10};
  for (const AnyFault& fault :
       {refuse("mmal_format_extradata_alloc"), nullResult("mmal_format_extradata_alloc")}) {
    const auto decoder = ready(false);
    inject(fault);
    EXPECT_TRUE(decoder->Create(64, 48, sizeof extra, extra));
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
    expectWorks(*decoder);
  }
}

TEST_F(DecoderFaults, APortThatStaysOpenIsReported) {
  for (const unsigned nth : {1u, 2u}) {
    const auto decoder = ready();
    // The closing of the port before is refused too.
    inject(refuse("mmal_port_disable", 1, true));
    inject(refuse("mmal_wrapper_port_disable", nth));
    Capture capture;
    control::startJournal();
    decoder->Create(64, 48, 0, nullptr);
    control::stopJournal();
    EXPECT_NE(calls().find("port_flush(video_decode#1:in0)\n"), std::string::npos)
        << "the pool goes with its buffers";
    const std::string which = nth == 1 ? "SetInputFormat" : "SetOutputFormat";
    EXPECT_NE(
        capture.err().find(name + which + " - failed to disable input port. Error code [0x7]"),
        std::string::npos)
        << capture.err();
    control::clearFaults();
  }
}

TEST_F(DecoderFaults, SemaphoresThatCannotBeMadeAreReported) {
  for (const auto& [nth, which] : {std::pair(1, "input"), std::pair(2, "output")}) {
    interpose::semInit.arm(nth);
    expectAnswer<bool>([] { return Decoder(), true; }, true, "",
                       name + "CMmalH264Decoder - failed to create " + which + " semaphore\n");
  }
}

TEST_F(DecoderFaults, BadArgumentsAndStates) {
  Decoder decoder;
  unsigned char byte = 0;
  Picture out;
  const auto expectInput = [&](unsigned char* data, unsigned int count, int width, int height,
                               CodecStatus status, const std::string& line) {
    expectAnswer<CodecStatus>(
        [&] { return decoder.ProcessInput(data, count, width, height, 0, 0); }, status, "",
        line.empty() ? "" : name + "ProcessInput - invalid " + line + "\n");
  };
  const auto expectOutput = [&](unsigned char* data, unsigned int capacity, CodecStatus status,
                                const std::string& line) {
    Picture left;
    Capture capture;
    EXPECT_EQ(
        decoder.ProcessOutput(data, capacity, left.size, left.width, left.height, left.timestamp),
        status);
    EXPECT_EQ(capture.err().rfind(name + "ProcessOutput - invalid " + line, 0), 0u)
        << capture.err();
    EXPECT_TRUE(left.untold());
    EXPECT_EQ(left.size, poisonedNumber);
  };
  const auto expectFalse = [&](const std::function<bool()>& call, const std::string& lines) {
    expectAnswer<bool>(call, false, "", lines);
  };
  expectFalse([&] { return decoder.Create(64, 48, 0, nullptr); },
              name + "Create - invalid state [(nil)]\n");
  expectInput(nullptr, 0, 64, 48, CodecInvalidArgument, "input arguments [(nil)][0]");
  expectInput(nullptr, 5, 64, 48, CodecInvalidArgument, "input arguments [(nil)][5]");
  expectInput(&byte, 1, 0, 480, CodecStreamMismatch,
              "stream setup input[0x480] decoder[0x0]. Use Create callback.");
  expectInput(&byte, 1, 0, 0, CodecInvalidState, "state [(nil)] [(nil)]");
  expectOutput(nullptr, 5, CodecInvalidArgument, "input parameters [(nil)][5]\n");
  expectOutput(&byte, 0, CodecInvalidArgument, "input parameters [0x");
  expectOutput(&byte, 1, CodecInvalidState, "state [(nil)] [(nil)][0x");
  expectAnswer<CodecStatus>(
      [&] {
        return decoder.ProcessOutput(nullptr, out.size, out.width, out.height, out.timestamp);
      },
      CodecInvalidArgument, "", name + "ProcessOutput - invalid input argument\n");
  EXPECT_TRUE(out.untold());
  decoder.ResetResources();
  ASSERT_TRUE(decoder.Initialize() && decoder.Initialize());
  expectFalse([&] { return decoder.Create(0, 480, 0, nullptr); },
              name + "SetInputFormat - image dimensions are not supported 0x480\n" + name +
                  "Create - SetInputFormat failed with 0x3\n");
  ASSERT_TRUE(decoder.Create(-64, 48, 0, nullptr));
  expectInput(&byte, 1, 64, 48, CodecStreamMismatch,
              "stream setup input[64x48] decoder[-64x48]. Use Create callback.");
  expectInput(&byte, 0, -64, 48, CodecNoBuffer, "");
  expectAnswer<MMAL_STATUS_T>([&] { return decoder.SetOutputFormat(nullptr, 64, 0); }, MMAL_EINVAL,
                              "",
                              name + "SetOutputFormat - image dimensions are not supported 64x0\n");
}

TEST_F(DecoderFaults, CallbacksWithoutAnObjectOrAQueueReleaseTheBuffer) {
  MMAL_POOL_T* const buffers = mmal_pool_create(1, 64);
  MMAL_PORT_T port{};
  inject(refuse("mmal_queue_create"));
  Decoder decoder;
  for (Decoder* const user : {static_cast<Decoder*>(nullptr), &decoder}) {
    port.userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(user);
    for (const auto callback : {InputDecH264Callback, OutputDecH264Callback}) {
      MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(buffers->queue);
      ASSERT_NE(buffer, nullptr);
      callback(&port, buffer);
      EXPECT_EQ(mmal_queue_length(buffers->queue), 1u);
    }
  }
  mmal_pool_destroy(buffers);
  ASSERT_TRUE(decoder.Initialize() && decoder.Create(64, 48, 0, nullptr));
  EXPECT_EQ(take(decoder).status, CodecNoBuffer);
  EXPECT_EQ(credits(decoder), 2);
}

std::string tooLong(int size, int buffer) {
  return name + "ProcessInput - input image buffer [" + std::to_string(size) +
         "] is bigger than input mmal buffer[" + std::to_string(buffer) + "]\n";
}

/// The others go in all the same, and the result is the last one's.
TEST_F(DecoderFaults, ARefusedPieceTakesNothing) {
  const auto decoder = ready();
  Bytes data(7000);                                  // three buffers of what no picture is made of
  for (const unsigned nth : {1u, 2u, 3u, 1u, 2u}) {  // more often than there are buffers
    std::string told;
    for (const unsigned piece : {1u, 2u, 3u}) {
      if (piece < 3) told += tooLong(7000, 3072);
      if (piece == nth)
        told += name + "ProcessInput - send input buffer failed. Error code [0x7]\n";
    }
    inject(refuse("mmal_port_send_buffer", nth));
    expectAnswer<CodecStatus>(
        [&] { return decoder->ProcessInput(data.data(), 7000, 64, 48, 0, 0); },
        nth == 3 ? CodecSendFailed : CodecOk, told, "");
    control::clearFaults();
  }
  ASSERT_TRUE(decoder->Create(64, 48, 0, nullptr));
  expectWorks(*decoder);
}

TEST_F(DecoderFaults, AnotherCreateLeavesTheCounts) {
  const auto decoder = ready();
  ASSERT_EQ(feed(*decoder), CodecOk);
  // The picture goes, and the component gets no buffer for another before it is missed.
  inject(refuse("mmal_port_send_buffer", 1, true));
  ASSERT_TRUE(decoder->Create(64, 48, 0, nullptr));
  control::clearFaults();
  for (int buffer = 0; buffer < 4; ++buffer) EXPECT_EQ(take(*decoder).status, CodecNoBuffer);
  expectWorks(*decoder);
  EXPECT_EQ(credits(*decoder), 2);
}

TEST_F(DecoderFaults, WhatTheComponentGivesIsHandedOutAsItIs) {
  const struct {
    std::uint32_t cmd, offset;
    std::int64_t pts;
    unsigned long long timestamp;
  } rows[] = {{0, 0, MMAL_TIME_UNKNOWN, 0},
              {0, 2, 999, 0},
              {0, 0, 1999, 1},
              {MMAL_EVENT_FORMAT_CHANGED, 0, 40000, 40}};
  const auto decoder = ready();
  MMAL_PORT_T port{};
  port.userdata = reinterpret_cast<MMAL_PORT_USERDATA_T*>(decoder.get());
  MMAL_POOL_T* const buffers = mmal_pool_create(1, 4);
  for (const auto& row : rows) {
    MMAL_BUFFER_HEADER_T* const buffer = mmal_queue_get(buffers->queue);
    ASSERT_NE(buffer, nullptr) << "the last one is back";
    std::iota(buffer->data, buffer->data + 4, std::uint8_t{7});
    buffer->length = 2;
    std::tie(buffer->cmd, buffer->offset, buffer->pts) = std::tie(row.cmd, row.offset, row.pts);
    OutputDecH264Callback(&port, buffer);
    const Picture out = take(*decoder, 2);
    EXPECT_EQ(out.status, CodecOk);
    EXPECT_EQ(std::tie(out.size, out.width, out.height, out.timestamp, out.data[0]),
              std::make_tuple(2u, 64u, 48u, row.timestamp, 7));
  }
  mmal_pool_destroy(buffers);
}

TEST_F(DecoderFaults, WhatDoesNotFitIsToldAndGone) {
  const auto decoder = ready();
  ASSERT_EQ(feed(*decoder), CodecOk);
  const Picture out = take(*decoder, frameBytes - 1);
  EXPECT_EQ(out.status, CodecBufferTooSmall);
  EXPECT_EQ(out.size, frameBytes);
  EXPECT_TRUE(out.untold());
  EXPECT_EQ(out.data, Bytes(frameBytes - 1, poison));
  ASSERT_EQ(feed(*decoder, 1), CodecOk);
  EXPECT_EQ(take(*decoder, frameBytes).status, CodecOk);
}

TEST_F(DecoderFaults, ShortOfMemoryItGivesTheBufferBack) {
  const auto decoder = ready();
  for (int round = 0; round < 8; ++round) {  // more often than there are buffers
    ASSERT_EQ(feed(*decoder), CodecOk);
    unsigned char* frame = nullptr;
    Picture out;
    interpose::allocation.arm(1);
    EXPECT_THROW(decoder->ProcessOutput(&frame, out.size, out.width, out.height, out.timestamp),
                 std::bad_alloc);
    EXPECT_EQ(frame, nullptr);
    EXPECT_EQ(out.size, poisonedNumber);
  }
  expectWorks(*decoder);
}

TEST_F(DecoderFaults, WaitsEndOnTimeWhateverDisturbsThem) {
  expectLimits("CMmalH264Decoder");
}

TEST_F(DecoderFaults, ObjectsDoNotDisturbEachOther) {
  expectIndependence("CMmalH264Decoder");
}

/// The Create gives the lost buffer back. It leaves no pool for the next piece, or another size.
TEST_F(DecoderFaults, APieceThatWaitsOutlivesACreate) {
  for (const bool fails : {true, false}) {
    const auto decoder = ready();
    inject(lose("input"));
    ASSERT_EQ(feed(*decoder), CodecOk);
    Capture capture;
    control::startJournal();
    ClientThread feeder(
        [&] { EXPECT_EQ(feed(*decoder, 1), fails ? CodecTimeout : CodecStreamMismatch); });
    while (control::journalNames(control::Lines::Calls).empty()) std::this_thread::yield();
    if (fails) inject(refuse("mmal_port_enable"));
    EXPECT_NE(decoder->Create(96, 48, 0, nullptr), fails);
    feeder.join();
    control::stopJournal();
    EXPECT_EQ(capture.out(), fails
                                 ? name + "ProcessInput - no buffer available for input frame.\n" +
                                       name + "ProcessInput - timeout\n"
                                 : "");
    EXPECT_EQ(capture.err().find(name + "ProcessInput - invalid stream setup input[64x48] "
                                        "decoder[96x48]. Use Create callback.\n") == 0,
              !fails);
    control::clearFaults();
    ASSERT_TRUE(decoder->Create(64, 48, 0, nullptr));
    expectWorks(*decoder);
    EXPECT_EQ(credits(*decoder), fails ? 1 : 3);
  }
}

bool sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t program = text.rfind(')');
  return program != std::string::npos && text[program + 2] == 'S';
}

/// Another thread's Create comes upon a picture for which there is an array to be made.
TEST_F(DecoderThreads, CreateWaitsForAPictureThatIsBeingCopied) {
  static std::unique_ptr<Decoder> decoder;
  static std::thread creator;
  static std::atomic<pid_t> thread;
  static std::atomic<bool> created;
  thread = 0;
  created = false;
  decoder = ready();
  ASSERT_EQ(feed(*decoder), CodecOk);
  interpose::beforeAllocation = [] {
    interpose::beforeAllocation = nullptr;
    creator = std::thread([] {
      thread = gettid();
      created = decoder->Create(64, 48, 0, nullptr);
    });
    // Until it waits, and not for the platform.
    for (int still = 0; !created && still < 50; std::this_thread::yield())
      still = thread != 0 && sleeps(thread) && control::quiet() ? still + 1 : 0;
    EXPECT_FALSE(created) << "the picture's pool is gone";
  };
  CodecStatus status = CodecTimeout;
  while (status == CodecTimeout) status = takeArray(*decoder).status;
  EXPECT_EQ(status, CodecOk);
  creator.join();
  EXPECT_TRUE(created);
  decoder.reset();
}

/// Data longer than a buffer goes out in pieces, with a line for each but the last.
TEST_F(DecoderFaults, TheConversationReadsLikeThis) {
  control::startJournal();
  {
    Decoder decoder;
    decoder.Initialize();
    const unsigned char extra[]{0, 0, 0, 1, 10};
    decoder.Create(100, 50, sizeof(extra), extra);
    Bytes data(12000, 0xFF);
    const std::string bigger = tooLong(12000, 5000);
    expectAnswer<CodecStatus>(
        [&] { return decoder.ProcessInput(data.data(), 12000, 100, 50, 1, 40); }, CodecOk,
        bigger + bigger, "");
    decoder.ProcessInput(data.data(), 1, 100, 50, 0, 0);
    take(decoder);
    decoder.Create(-1920, 1080, 5, nullptr);
  }
  expectConversation("CMmalH264Decoder");
}

}  // namespace
