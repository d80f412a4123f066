#include <algorithm>
#include <chrono>
#include <memory>
#include <regex>

#include "JpegFixture.h"

namespace {

namespace control = tessera_platform;
using control::CompletionFault;
using support::Bytes;
using support::Image;

const std::string encodePrefix = "COmxJpegEncoder::Encode - ";
const std::string noAnswer = encodePrefix + "no answer to ";
const std::string allocateLabel = "CJpegHardwareEncoder::Allocate";
const std::string readPort = "OMX_GetParameter::OMX_IndexParamPortDefinition";

/// The construction, call by call.
const std::vector<Refusal> construction = {
    {"bcm_host_init", "", "", true},
    {"OMX_Init", "CJpegHardwareEncoder::InitHardware::OMX_Init", "", false, false},
    {"OMX_GetHandle", "CJpegHardwareEncoder::InitHardware::OMX_GetHandle", "", false, false},
    {"OMX_GetParameter", "", "", true},
    {"OMX_GetParameter", "", "", true},
    // Ports that stay enabled keep the component from reaching Idle; the next encode takes another.
    {"OMX_GetParameter", "", "", false, true},
    {"OMX_SendCommand", "CJpegHardwareEncoder::InitHardware::OMX_CommandPortDisable", "", false,
     true},
    {"OMX_SendCommand", "CJpegHardwareEncoder::InitHardware::OMX_CommandPortDisable", "", false,
     true},
    {"OMX_GetParameter", "", "", true}};

/// One encode.
const std::vector<Refusal> conversation = {
    {"OMX_GetParameter", "COmxJpegEncoder::SetupInputPort::" + readPort,
     encodePrefix + "SetupInputPort failed\n"},
    {"OMX_SetParameter",
     "COmxJpegEncoder::SetupInputPort::OMX_SetParameter::OMX_IndexParamPortDefinition",
     encodePrefix + "SetupInputPort failed\n"},
    {"OMX_GetParameter", "COmxJpegEncoder::SetupInputPort::" + readPort + "::AfterSetup",
     encodePrefix + "SetupInputPort failed\n"},
    {"OMX_GetParameter", "COmxJpegEncoder::SetupOutputPort::" + readPort,
     encodePrefix + "SetupOutputPort failed\n"},
    {"OMX_SetParameter",
     "COmxJpegEncoder::SetupOutputPort::OMX_SetParameter::OMX_IndexParamPortDefinition",
     encodePrefix + "SetupOutputPort failed\n"},
    {"OMX_SetParameter", "COmxJpegEncoder::SetupOutputPort::OMX_IndexParamQFactor", "", true},
    {"OMX_SendCommand", "CJpegHardwareEncoder::Encode::OMX_SendCommand::OMX_StateIdle", ""},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandPortEnable::Input", ""},
    {"OMX_GetParameter", allocateLabel + "InputHardwareBuffer::" + readPort + "::Input",
     encodePrefix + "AllocateOmxInputBuffer failed\n"},
    {"OMX_AllocateBuffer", allocateLabel + "InputHardwareBuffer::OMX_AllocateBuffer::Input",
     encodePrefix + "AllocateOmxInputBuffer failed\n"},
    // From here on buffers stay where they are, and the ports refuse to be set up again.
    {"OMX_SendCommand", "CJpegHardwareEncoder::Encode::OMX_CommandPortEnable::Output", "", false,
     false},
    {"OMX_GetParameter", allocateLabel + "OutputHardwareBuffer::" + readPort + "::Output",
     encodePrefix + "AllocateOmxOutputBuffer failed\n"},
    {"OMX_AllocateBuffer", allocateLabel + "OutputHardwareBuffer::OMX_AllocateBuffer::Output",
     encodePrefix + "AllocateOmxOutputBuffer failed\n"},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateExecuting", "",
     false, false},
    {"OMX_GetParameter", "COmxJpegEncoder::Encode::OMX_IndexParamPortDefinition::Input", "", false,
     false},
    {"OMX_EmptyThisBuffer", "COmxJpegEncoder::Encode - signal new input buffer", ""},
    {"OMX_FillThisBuffer", "COmxJpegEncoder::Encode - failed to request filling", ""},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandFlush::Input", "", true},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandFlush::Output", "", true},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StatePause", "", true},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Input", "", true, false},
    {"OMX_FreeBuffer", "", noAnswer + "OMX_CommandPortDisable\n"},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Output", "", true, false},
    {"OMX_FreeBuffer", "", noAnswer + "OMX_CommandPortDisable\n"},
    {"OMX_SendCommand", "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateIdle", "", true}};

class OmxJpegFaults : public OmxTest {
 protected:
  const Image image_ = support::scene(100, 50);

  std::unique_ptr<COmxJpegEncoder> quietEncoder() {
    const support::Capture capture;
    return std::make_unique<COmxJpegEncoder>();
  }

  /// Encodes, and destroys the object without looking at what that prints.
  void expectAgain(COmxJpegEncoder& encoder, bool works) {
    control::clearFaults();
    const support::Capture capture;
    EXPECT_EQ(encode(encoder, image_, 0).result, works ? 1 : 0);
  }
  void expectNothingLeft(std::unique_ptr<COmxJpegEncoder> encoder) {
    {
      const support::Capture capture;
      encoder.reset();
    }
    EXPECT_EQ(control::describe(control::census()), "nothing");
    COmxJpegEncoder fresh;
    EXPECT_EQ(encode(fresh, image_, 0).result, 1) << "a new object works";
  }
};

TEST_F(OmxJpegFaults, EveryCallOfTheConstructionMayBeRefused) {
  control::startJournal();
  quietEncoder();
  ASSERT_GE(control::journalNames(control::Lines::Calls).size(), construction.size());
  for (std::size_t i = 0; i < construction.size(); ++i) {
    const Refusal& refusal = construction[i];
    SCOPED_TRACE(testing::Message() << "call " << i << ", " << refusal.call);
    EXPECT_EQ(control::journalNames(control::Lines::Calls)[i], refusal.call);
  }
  for (std::size_t i = 1; i < construction.size(); ++i) {
    const Refusal& refusal = construction[i];
    SCOPED_TRACE(testing::Message() << "call " << i << ", " << refusal.call);
    control::inject(refuse(construction, i));
    std::unique_ptr<COmxJpegEncoder> encoder;
    {
      support::Capture capture;
      encoder = std::make_unique<COmxJpegEncoder>();
      EXPECT_EQ(capture.err(), errorLine(refusal.label));
      EXPECT_EQ(capture.out(), "");
    }
    EXPECT_EQ(control::faultsHit(), 1u);
    control::clearFaults();
    {
      support::Capture capture;
      EXPECT_EQ(encode(*encoder, image_, 0).result, refusal.works ? 1 : 0);
      EXPECT_EQ(capture.out(), refusal.works   ? ""
                               : refusal.again ? noAnswer + "OMX_StateIdle\n"
                                               : encodePrefix + "encoder handle is empty\n");
    }
    expectAgain(*encoder, refusal.again);
    expectNothingLeft(std::move(encoder));
  }
}

TEST_F(OmxJpegFaults, EveryCallOfAnEncodeMayBeRefused) {
  auto encoder = quietEncoder();
  control::startJournal();
  ASSERT_EQ(encode(*encoder, image_, 0).result, 1);
  control::stopJournal();
  ASSERT_EQ(control::journalNames(control::Lines::Calls), names(conversation));
  for (std::size_t i = 0; i < conversation.size(); ++i) {
    const Refusal& refusal = conversation[i];
    SCOPED_TRACE(testing::Message() << "call " << i << ", " << refusal.call);
    encoder = quietEncoder();
    control::inject(refuse(conversation, i));
    {
      support::Capture capture;
      const Encoded out = encode(*encoder, image_, 0);
      EXPECT_EQ(out.result, refusal.works ? 1 : 0);
      EXPECT_EQ(out.size != 0xDEAD, refusal.works) << "a failure tells no size";
      EXPECT_EQ(capture.err(), errorLine(refusal.label));
      EXPECT_EQ(capture.out(), refusal.line);
    }
    EXPECT_EQ(control::faultsHit(), 1u);
    expectAgain(*encoder, refusal.again);
    expectNothingLeft(std::move(encoder));
  }
}

/// Whatever happens to a completion, the encode ends in time and the next one gives its own JPEG.
TEST_F(OmxJpegFaults, EveryCompletionMayBeLostLateTwiceOrAnErrorEvent) {
  auto encoder = quietEncoder();
  const Bytes expected = encode(*encoder, support::scene(100, 50, 7), 0).jpeg;
  control::startJournal();
  encode(*encoder, image_, 0);
  control::stopJournal();
  const auto completions = control::journalNames(control::Lines::Completions);
  ASSERT_GE(completions.size(), 12u);
  const std::pair<CompletionFault::Action, unsigned> actions[] = {
      {CompletionFault::Drop, 0},       {CompletionFault::Delay, 700},
      {CompletionFault::Delay, 20},     {CompletionFault::Double, 0},
      {CompletionFault::ErrorEvent, 0}, {CompletionFault::ZeroLength, 0}};
  for (std::size_t i = 0; i < completions.size(); ++i) {
    const auto nth = static_cast<unsigned>(std::count(
        completions.begin(), completions.begin() + static_cast<long>(i) + 1, completions[i]));
    for (const auto& [action, delayMs] : actions) {
      SCOPED_TRACE(testing::Message() << completions[i] << " " << nth << ", action " << action);
      auto tested = quietEncoder();
      control::inject(CompletionFault{completions[i], nth, false, action, delayMs,
                                      static_cast<OMX_U32>(OMX_ErrorHardware)});
      support::Capture capture;
      const auto start = std::chrono::steady_clock::now();
      const Encoded out = encode(*tested, image_, 0);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
      if (out.result == 0) {
        const std::string lines = capture.out();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << lines;
      }
      const Encoded next = encode(*tested, support::scene(100, 50, 7), 0);
      EXPECT_TRUE(next.result == 1 && next.jpeg == expected);
      control::clearFaults();
      EXPECT_TRUE(encode(*tested, support::scene(100, 50, 7), 0).jpeg == expected);
    }
  }
}

TEST_F(OmxJpegFaults, AnErrorEventLeavesTheWaitOneMoreSecond) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  support::interpose::hurry = 10;
  for (const bool error : {false, true}) {
    auto encoder = quietEncoder();
    control::inject(CompletionFault{"FillBufferDone", 1, false,
                                    error ? CompletionFault::ErrorEvent : CompletionFault::Drop, 0,
                                    static_cast<OMX_U32>(OMX_ErrorHardware)});
    support::Capture capture;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(encode(*encoder, image_, 0).result, 0);
    const auto took = Clock::now() - start;
    EXPECT_GE(took, milliseconds(error ? 100 : 1000));
    EXPECT_LT(took, milliseconds(error ? 370 : 1250));
    EXPECT_EQ(capture.out(), noAnswer + "OMX_FillThisBuffer\n");
    EXPECT_EQ(
        capture.err(),
        error ? "OmxEventsHandler - 0x80001009:the hardware failed to respond as expected\n" : "");
    control::clearFaults();
  }
}

TEST_F(OmxJpegFaults, TheWholeConversation) {
  const std::string port = "OMX_GetParameter(image_encode#1, PortDefinition 34";
  const auto send = [](const char* what) {
    return "OMX_SendCommand(image_encode#1, " + std::string(what) + ") = None\n";
  };
  const std::string init = "OMX_GetParameter(image_encode#1, ";
  control::startJournal();
  {
    COmxJpegEncoder encoder;
    EXPECT_EQ(journalText(),
              "bcm_host_init()\nOMX_Init() = None\n"
              "OMX_GetHandle(OMX.broadcom.image_encode -> image_encode#1) = None\n" +
                  init + "AudioInit) = None\n" + init + "VideoInit) = None\n" + init +
                  "ImageInit) = None\n" + send("PortDisable 340") + send("PortDisable 341") + init +
                  "OtherInit) = None\n");
    encode(encoder, image_, 24);
    control::startJournal();
    const Encoded out = encode(encoder, image_, 0);
    // How large an output buffer is, the component decides.
    const std::regex size("(JPEG size|:341,) [0-9]+");
    EXPECT_EQ(std::regex_replace(journalText(), size, "$1 N"),
              port +
                  "0) = None\n"
                  "OMX_SetParameter(image_encode#1, PortDefinition 340: 128x64 stride 256 slice 64 "
                  "YCbYCr size 16384) = None\n" +
                  port + "0) = None\n" + port + "1) = None\n" +
                  "OMX_SetParameter(image_encode#1, PortDefinition 341: 128x64 stride 0 slice 0 "
                  "JPEG size N) = None\n"
                  "OMX_SetParameter(image_encode#1, QFactor 341: 75) = None\n" +
                  send("StateSet Idle") + send("PortEnable 340") + port + "0) = None\n" +
                  "OMX_AllocateBuffer(image_encode#1:340, 16384 bytes) = None\n" +
                  send("PortEnable 341") + port + "1) = None\n" +
                  "OMX_AllocateBuffer(image_encode#1:341, N bytes) = None\n" +
                  send("StateSet Executing") + port + "0) = None\n" +
                  "OMX_EmptyThisBuffer(image_encode#1:340, 16384 bytes EOS) = None\n"
                  "OMX_FillThisBuffer(image_encode#1:341) = None\n" +
                  send("Flush 340") + send("Flush 341") + send("StateSet Pause") +
                  send("PortDisable 340") + "OMX_FreeBuffer(image_encode#1:340) = None\n" +
                  send("PortDisable 341") + "OMX_FreeBuffer(image_encode#1:341) = None\n" +
                  send("StateSet Idle"));
    EXPECT_EQ(out.result, 1);
    control::startJournal();
  }
  EXPECT_EQ(journalText(), "OMX_FreeHandle(image_encode#1) = None\nOMX_Deinit() = None\n");
  control::stopJournal();
}

TEST_F(OmxJpegFaults, MemoryThatRunsOutLeavesNothingBehind) {
  COmxJpegEncoder encoder;
  Bytes frame = rawFrame(image_, 0);
  unsigned char* array = nullptr;
  unsigned int size = 5;
  support::interpose::allocation.arm(1);
  EXPECT_THROW(encoder.EncodeYUYV(frame.data(), static_cast<unsigned int>(frame.size()), 100, 50,
                                  &array, size),
               std::bad_alloc);
  support::interpose::allocation.disarm();
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(encode(encoder, image_, 0).result, 1);
}

}  // namespace
