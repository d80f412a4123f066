#include <algorithm>
#include <chrono>
#include <memory>

#include "H264Fixture.h"

namespace {

namespace control = tessera_platform;
using control::CompletionFault;
using support::Bytes;

const std::string readPort = "OMX_GetParameter::OMX_IndexParamPortDefinition";
const std::string setUp = "COmxH264Encoder::InitializeHardware::";
const std::string inputFormat = "COmxH264Encoder::SetInputFormat::";
const std::string inputFailed = "COmxH264Encoder::Create - SetInputFormat failed with 0x80001000\n";
const std::string outputFailed =
    "COmxH264Encoder::Create - SetOutputFormat failed with 0x80001000\n";

/// The construction, call by call. Ports that stay enabled keep the component from reaching Idle;
/// the next Create takes another one.
const std::vector<Refusal> construction = {
    {"bcm_host_init", "", "", true},
    {"OMX_Init", setUp + "OMX_Init", "", false, false},
    {"OMX_GetHandle", setUp + "OMX_GetHandle", "", false, false},
    {"OMX_GetParameter", "", "", true},
    {"OMX_GetParameter", "", "", false},
    {"OMX_SendCommand", setUp + "OMX_CommandPortDisable", "", false},
    {"OMX_SendCommand", setUp + "OMX_CommandPortDisable", "", false},
    {"OMX_GetParameter", "", "", true},
    {"OMX_GetParameter", "", "", true}};

const std::vector<Refusal> creation = {
    {"OMX_GetParameter", inputFormat + readPort, inputFailed},
    {"OMX_SetParameter", inputFormat + "OMX_SetParameter::OMX_IndexParamPortDefinition",
     inputFailed},
    {"OMX_GetParameter", inputFormat + readPort + "::AfterSetup", inputFailed},
    {"OMX_GetParameter", "COmxH264Encoder::SetOutputFormat::" + readPort + "::GetInput",
     outputFailed},
    {"OMX_SetParameter", inputFormat + "OMX_SetParameter::OMX_IndexParamPortDefinition",
     outputFailed},
    {"OMX_SetParameter", inputFormat + "OMX_IndexParamVideoBitrate", outputFailed},
    {"OMX_SetParameter", inputFormat + "OMX_IndexParamVideoPortFormat", outputFailed},
    {"OMX_GetParameter", inputFormat + "OMX_GetParameter::OMX_IndexParamVideoAvc", outputFailed},
    {"OMX_SetParameter", inputFormat + "OMX_SetParameter::OMX_IndexParamVideoAvc", outputFailed},
    {"OMX_SendCommand", "COmxH264Encoder::Create::OMX_SendCommand::OMX_StateIdle", ""},
    {"OMX_SendCommand", "COmxH264Encoder::Create::OMX_CommandPortEnable::Input", ""},
    {"OMX_GetParameter", "COmxH264Encoder::AllocateOmxInputBuffer::" + readPort + "::Input",
     "COmxH264Encoder::Create - AllocateOmxInputBuffer failed 0x80001000\n"},
    {"OMX_AllocateBuffer", "COmxH264Encoder::AllocateOmxInputBuffer::OMX_AllocateBuffer::Input",
     "COmxH264Encoder::Create - AllocateOmxInputBuffer failed 0x80001000\n"},
    {"OMX_SendCommand", "COmxH264Encoder::Create::OMX_CommandPortEnable::Output", ""},
    {"OMX_GetParameter", "COmxH264Encoder::AllocateOmxOutputBuffer::" + readPort + "::Output",
     "COmxH264Encoder::Create - AllocateOmxOutputBuffer failed 0x80001000\n"},
    {"OMX_AllocateBuffer", "COmxH264Encoder::AllocateOmxOutputBuffer::OMX_AllocateBuffer::Output",
     "COmxH264Encoder::Create - AllocateOmxOutputBuffer failed 0x80001000\n"},
    {"OMX_SendCommand", "COmxH264Encoder::Create::OMX_CommandStateSet::OMX_StateExecuting", ""},
    {"OMX_FillThisBuffer", "COmxH264Encoder::Create - OMX_FillThisBuffer failed to request filling",
     "", true}};

class OmxH264Faults : public OmxTest {
 protected:
  static constexpr int width = 64, height = 48;

  static bool encodes(COmxH264Encoder& encoder) {
    if (feed(encoder, support::scene(width, height)) != CodecOk) return false;
    Bytes stream = collect(encoder).data;
    const Output frame = collect(encoder);
    stream.insert(stream.end(), frame.data.begin(), frame.data.end());
    return support::decodeH264(stream).pictures.size() == 1;
  }

  static std::unique_ptr<COmxH264Encoder> quietEncoder() {
    const support::Capture capture;
    return std::make_unique<COmxH264Encoder>();
  }

  /// Without the fault the same object works (or not), and is destroyed cleanly.
  static void finish(std::unique_ptr<COmxH264Encoder> encoder, bool works) {
    control::clearFaults();
    const support::Capture capture;
    EXPECT_EQ(create(*encoder, width, height) && encodes(*encoder), works);
    encoder.reset();
    EXPECT_EQ(control::describe(control::census()), "nothing");
  }
};

TEST_F(OmxH264Faults, EveryCallOfTheConstructionMayBeRefused) {
  control::startJournal();
  quietEncoder();
  auto calls = control::journalNames(control::Lines::Calls);
  calls.resize(construction.size());
  EXPECT_EQ(calls, names(construction));
  for (std::size_t i = 1; i < construction.size(); ++i) {
    const Refusal& refusal = construction[i];
    SCOPED_TRACE(testing::Message() << "call " << i << ", " << refusal.call);
    control::inject(refuse(construction, i));
    support::Capture capture;
    auto encoder = std::make_unique<COmxH264Encoder>();
    EXPECT_EQ(capture.err(), errorLine(refusal.label));
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
    const std::size_t before = capture.err().size();
    EXPECT_EQ(create(*encoder, width, height), refusal.works);
    EXPECT_EQ(capture.err().substr(before),
              refusal.works   ? ""
              : refusal.again ? "COmxH264Encoder::Create - no answer to OMX_StateIdle\n"
                              : "COmxH264Encoder::Create - invalid state of encoder object.\n");
    finish(std::move(encoder), refusal.again);
  }
}

TEST_F(OmxH264Faults, EveryCallOfCreateMayBeRefused) {
  auto encoder = quietEncoder();
  control::startJournal();
  ASSERT_TRUE(create(*encoder, width, height));
  control::stopJournal();
  ASSERT_EQ(control::journalNames(control::Lines::Calls), names(creation));
  finish(std::move(encoder), true);
  for (std::size_t i = 0; i < creation.size(); ++i) {
    const Refusal& refusal = creation[i];
    SCOPED_TRACE(testing::Message() << "call " << i << ", " << refusal.call);
    encoder = quietEncoder();
    control::inject(refuse(creation, i));
    {
      support::Capture capture;
      EXPECT_EQ(create(*encoder, width, height), refusal.works);
      EXPECT_EQ(capture.err(), errorLine(refusal.label) + refusal.line);
      EXPECT_EQ(capture.out(), "");
      EXPECT_EQ(control::faultsHit(), 1u);
      control::clearFaults();
      // A fill that was refused is asked for again; anything else takes no frame.
      EXPECT_EQ(encodes(*encoder), refusal.works);
    }
    finish(std::move(encoder), true);
  }
}

TEST_F(OmxH264Faults, ARefusedBufferLosesItsFrameOnly) {
  auto encoder = quietEncoder();
  ASSERT_TRUE(create(*encoder, width, height));
  ASSERT_TRUE(encodes(*encoder));
  support::Capture capture;
  control::inject(control::CallFault{"OMX_EmptyThisBuffer", 1, false, control::CallFault::Fail,
                                     OMX_ErrorInsufficientResources});
  EXPECT_EQ(feed(*encoder, support::scene(width, height, 1)), CodecSendFailed);
  EXPECT_EQ(capture.err(), errorLine("COmxH264Encoder::ProcessInput - signal new input buffer"));
  control::inject(control::CallFault{"OMX_FillThisBuffer", 1, false, control::CallFault::Fail,
                                     OMX_ErrorInsufficientResources});
  for (int t = 2; t < 5; ++t) {
    ASSERT_EQ(feed(*encoder, support::scene(width, height, t)), CodecOk);
    EXPECT_EQ(collect(*encoder).status, CodecOk) << "the buffer is handed over again";
  }
  EXPECT_EQ(control::faultsHit(), 2u);
  EXPECT_NE(
      capture.err().find(errorLine("COmxH264Encoder::ProcessOutput - OMX_FillThisBuffer failed")),
      std::string::npos);
}

// -------------------------------------------------------------------------------- completions

TEST_F(OmxH264Faults, CreateEndsWhenAnAnswerDoesNotCome) {
  auto encoder = quietEncoder();
  control::startJournal();
  ASSERT_TRUE(create(*encoder, width, height));
  control::stopJournal();
  const auto events = control::journalNames(control::Lines::Completions).size();
  ASSERT_EQ(events, 4u);
  const char* const answers[] = {"OMX_StateIdle", "OMX_CommandPortEnable", "OMX_CommandPortEnable",
                                 "OMX_StateExecuting"};
  finish(std::move(encoder), true);
  for (unsigned nth = 1; nth <= events; ++nth)
    for (const auto action : {CompletionFault::Drop, CompletionFault::ErrorEvent}) {
      SCOPED_TRACE(testing::Message() << "answer " << nth << ", action " << action);
      encoder = quietEncoder();
      control::inject(CompletionFault{"EventHandler", nth, false, action, 0,
                                      static_cast<OMX_U32>(OMX_ErrorHardware)});
      {
        support::Capture capture;
        EXPECT_FALSE(create(*encoder, width, height));
        const std::string line = "COmxH264Encoder::Create - no answer to ";
        EXPECT_NE(capture.err().find(line + answers[nth - 1] + "\n"), std::string::npos);
      }
      finish(std::move(encoder), true);
    }
}

/// A lost or late fill: time-out, and afterwards the frame fed last is the one that comes out.
/// Key frames come every second frame, so that a stream with a hole recovers.
TEST_F(OmxH264Faults, ALateFillIsNeverTheNextFrames) {
  constexpr unsigned lateMs = 700;  // the limit is 100 here
  for (const unsigned delayMs : {0u, lateMs})
    for (const unsigned nth : {1u, 2u, 4u}) {
      SCOPED_TRACE(testing::Message() << "fill " << nth << ", " << delayMs << " ms late");
      auto encoder = quietEncoder();
      ASSERT_TRUE(create(*encoder, width, height, yuyv, 1000000, 2));
      const auto action = delayMs == 0 ? CompletionFault::Drop : CompletionFault::Delay;
      control::inject(CompletionFault{"FillBufferDone", nth, false, action, delayMs, 0});
      // Each frame has a brightness of its own, so that the pictures tell which came out.
      Bytes stream;
      int lost = 0;
      for (int t = 0; t < 6; ++t) {
        const support::Capture capture;
        const auto grey = static_cast<std::uint8_t>(20 + 40 * t);
        feed(*encoder, support::flat(width, height, grey, grey, grey));
        for (int buffer = t == 0 ? 0 : 1; buffer < 2; ++buffer) {
          const Output out = collect(*encoder);
          lost += out.status == CodecTimeout;
          stream.insert(stream.end(), out.data.begin(), out.data.end());
          if (out.status == CodecTimeout) break;
        }
      }
      EXPECT_EQ(lost, 1);
      EXPECT_EQ(control::faultsHit(), 1u);
      const support::H264Stream seen = support::decodeH264(stream);
      ASSERT_FALSE(seen.pictures.empty());
      const support::Yuv& last = seen.pictures.back();
      EXPECT_NEAR(last.y[static_cast<std::size_t>(last.width) * 24 + 32], 220, 15);
      finish(std::move(encoder), true);
    }
}

TEST_F(OmxH264Faults, WaitingAgainGivesTheLateFill) {
  auto encoder = quietEncoder();
  ASSERT_TRUE(create(*encoder, width, height));
  control::inject(CompletionFault{"FillBufferDone", 1, false, CompletionFault::Delay, 700, 0});
  ASSERT_EQ(feed(*encoder, support::scene(width, height)), CodecOk);
  support::Capture capture;
  EXPECT_EQ(collect(*encoder).status, CodecTimeout);
  EXPECT_EQ(capture.err(), "COmxH264Encoder::ProcessOutput - the output buffer was not filled\n");
  support::interpose::hurry = 5;
  Bytes stream = collect(*encoder).data;
  const Output frame = collect(*encoder);
  stream.insert(stream.end(), frame.data.begin(), frame.data.end());
  EXPECT_EQ(support::decodeH264(stream).pictures.size(), 1u);
}

TEST_F(OmxH264Faults, TheInputBufferIsWaitedFor) {
  auto encoder = quietEncoder();
  ASSERT_TRUE(create(*encoder, width, height));
  control::inject(CompletionFault{"EmptyBufferDone", 1, false, CompletionFault::Delay, 700, 0});
  ASSERT_EQ(feed(*encoder, support::scene(width, height)), CodecOk);
  support::Capture capture;
  EXPECT_EQ(feed(*encoder, support::scene(width, height, 1)), CodecTimeout);
  EXPECT_EQ(capture.err(), "COmxH264Encoder::ProcessInput - the input buffer did not come back\n");
  support::interpose::hurry = 5;
  EXPECT_EQ(collect(*encoder).status, CodecOk);
  EXPECT_EQ(collect(*encoder).status, CodecOk);
  EXPECT_EQ(feed(*encoder, support::scene(width, height, 1)), CodecOk);
  EXPECT_EQ(collect(*encoder).status, CodecOk);
}

TEST_F(OmxH264Faults, MemoryThatRunsOutKeepsTheData) {
  COmxH264Encoder encoder;
  ASSERT_TRUE(create(encoder, width, height));
  ASSERT_EQ(feed(encoder, support::scene(width, height)), CodecOk);
  unsigned char* array = nullptr;
  unsigned int size = 5, flags = 5;
  collect(encoder);
  support::interpose::allocation.arm(1);
  EXPECT_THROW(encoder.ProcessOutput(&array, size, flags), std::bad_alloc);
  support::interpose::allocation.disarm();
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(size, 5u);
  const Output kept = collect(encoder);
  EXPECT_EQ(kept.status, CodecOk);
  EXPECT_EQ(kept.flags, 1u);
}

TEST_F(OmxH264Faults, IsDestroyedInTheMiddleOfItsWork) {
  for (int frames = 0; frames < 3; ++frames) {
    auto encoder = quietEncoder();
    ASSERT_TRUE(create(*encoder, width, height));
    for (int t = 0; t < frames; ++t) feed(*encoder, support::scene(width, height, t));
    std::string lines;
    {
      support::Capture capture;
      encoder.reset();
      lines = capture.err();
    }
    // Buffers are freed on enabled ports, which the component tells.
    const std::string line =
        "OmxEventsHandler - 0x8000101c:the port has lost one or more of its buffers and it thus "
        "unpopulated.\n";
    EXPECT_EQ(lines, line + line);
    EXPECT_EQ(control::describe(control::census()), "nothing");
  }
}

TEST_F(OmxH264Faults, TheWholeConversation) {
  const auto get = [](const char* what) {
    return "OMX_GetParameter(video_encode#1, " + std::string(what) + ") = None\n";
  };
  const auto send = [](const char* what) {
    return "OMX_SendCommand(video_encode#1, " + std::string(what) + ") = None\n";
  };
  control::startJournal();
  auto encoder = quietEncoder();
  EXPECT_EQ(journalText(),
            "bcm_host_init()\nOMX_Init() = None\n"
            "OMX_GetHandle(OMX.broadcom.video_encode -> video_encode#1) = None\n" +
                get("AudioInit") + get("VideoInit") + send("PortDisable 200") +
                send("PortDisable 201") + get("ImageInit") + get("OtherInit"));
  control::startJournal();
  ASSERT_TRUE(create(*encoder, 1280, 720));
  ASSERT_EQ(feed(*encoder, support::scene(1280, 720)), CodecOk);
  ASSERT_EQ(collect(*encoder).status, CodecOk);
  EXPECT_EQ(
      journalText(),
      get("PortDefinition 200") +
          "OMX_SetParameter(video_encode#1, PortDefinition 200: 1280x720 stride 1280 slice 720 "
          "YUV420PackedPlanar rate 0x1e0000 size 921600) = None\n" +
          get("PortDefinition 200") + get("PortDefinition 200") +
          "OMX_SetParameter(video_encode#1, PortDefinition 201: 1280x720 stride 1280 slice 720 AVC "
          "size 1382400) = None\n"
          "OMX_SetParameter(video_encode#1, VideoBitrate 201: mode 1, 1000000) = None\n"
          "OMX_SetParameter(video_encode#1, VideoPortFormat 201: AVC) = None\n" +
          get("VideoAvc 201") +
          "OMX_SetParameter(video_encode#1, VideoAvc 201: profile 0x8, level 0x800) = None\n" +
          send("StateSet Idle") + send("PortEnable 200") + get("PortDefinition 200") +
          "OMX_AllocateBuffer(video_encode#1:200, 1382400 bytes) = None\n" +
          send("PortEnable 201") + get("PortDefinition 201") +
          "OMX_AllocateBuffer(video_encode#1:201, 1382400 bytes) = None\n" +
          send("StateSet Executing") +
          "OMX_FillThisBuffer(video_encode#1:201) = None\n"
          "OMX_EmptyThisBuffer(video_encode#1:200, 1382400 bytes EOS STARTTIME) = None\n"
          "OMX_FillThisBuffer(video_encode#1:201) = None\n");
  control::startJournal();
  {
    const support::Capture capture;
    encoder.reset();
  }
  EXPECT_EQ(journalText(),
            "OMX_FreeBuffer(video_encode#1:200) = None\nOMX_FreeBuffer(video_encode#1:201) = None\n"
            "OMX_FreeHandle(video_encode#1) = None\nOMX_Deinit() = None\n");
  control::stopJournal();
}

}  // namespace
