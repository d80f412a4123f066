#include <IL/OMX_Core.h>
#include <dlfcn.h>

#include <atomic>
#include <optional>
#include <thread>

#include "JpegEncoders.h"

namespace {

/// What a board's component may do and the platform's never does.
bool portsStartEnabled = false, marksGetLost = false;

}  // namespace

MMAL_STATUS_T mmal_wrapper_create(MMAL_WRAPPER_T** wrapper, const char* name) {
  static auto* const system =
      reinterpret_cast<decltype(&mmal_wrapper_create)>(dlsym(RTLD_NEXT, "mmal_wrapper_create"));
  const MMAL_STATUS_T status = system(wrapper, name);
  if (!portsStartEnabled) return status;
  for (MMAL_PORT_T* const port : {(*wrapper)->input[0], (*wrapper)->output[0]})
    EXPECT_EQ(mmal_wrapper_port_enable(port, MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE), MMAL_SUCCESS);
  return status;
}

MMAL_STATUS_T mmal_wrapper_buffer_get_full(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T** buffer,
                                           uint32_t flags) {
  static auto* const system = reinterpret_cast<decltype(&mmal_wrapper_buffer_get_full)>(
      dlsym(RTLD_NEXT, "mmal_wrapper_buffer_get_full"));
  const MMAL_STATUS_T status = system(port, buffer, flags);
  if (marksGetLost && *buffer != nullptr) (*buffer)->flags = 0;
  return status;
}

namespace {

using namespace support;
using control::CompletionFault;

const Image picture = scene(100, 50);

/// A construction and an encode with one fault in them.
using JpegFault = std::tuple<const JpegClass*, FaultCase>;

class JpegFaults : public FaultTest, public testing::WithParamInterface<JpegFault> {
 private:
  const VirtualTime time_;
};

TEST_P(JpegFaults, HaveTheirLinesAndTheNextCallIsNotFooled) {
  const auto& [kind, its] = GetParam();
  std::optional<JpegEncoder> encoder;
  inject(its.fault);
  expectAnswer<int>(
      [&, &kind = kind, &its = its] {
        encoder.emplace(*kind);
        const Encoded out = encoder->encode(picture);
        EXPECT_EQ(out.size != 0xDEAD, its.works) << "a failure tells no size";
        return out.result;
      },
      its.works, its.out, its.err);
  EXPECT_GE(control::faultsHit(), 1u);
  control::clearFaults();
  const Capture quiet;
  for (int t = 1; t < 4; ++t) {
    const Image next = scene(100, 50, t);
    const Encoded out = encoder->encode(next);
    EXPECT_EQ(out.result, its.again);
    if (out.result == 1) {
      EXPECT_GT(quality(out.jpeg, encoder->expected(next)), 30) << t;
    }
  }
  encoder.reset();
}

const std::string mmal = "CMmalJpegEncoder::", omx = "COmxJpegEncoder::Encode",
                  hardware = "CJpegHardwareEncoder::";
const std::string failed = mmal + "Encode - initialization failed\n";
const std::string step = mmal + "Initialize - failed to ";
const FaultCase mmalFaults[] = {
    {"Component", refuse("mmal_wrapper_create"), failed, step + "create mmal component\n"},
    {"InputFormat", refuse("mmal_port_format_commit"), failed, step + "commit input port format\n"},
    {"InputPort", refuse("mmal_wrapper_port_enable"), failed, step + "enable input port\n"},
    {"OutputFormat", refuse("mmal_port_format_commit", 2), failed,
     step + "commit output port format\n"},
    {"OutputPort", refuse("mmal_wrapper_port_enable", 2), failed, step + "enable output port\n"},
    {"Quality", refuse("mmal_port_parameter_set_uint32"), "", "", true},
    // What the output port refuses is tried again; the frame fails its call only.
    {"OutputBuffer", refuse("mmal_port_send_buffer"), "", mmal + "Encode - failed to send buffer\n",
     true},
    {"EmptyOutput", refuse("mmal_wrapper_buffer_get_empty"), "", "", true},
    {"EmptyInput", refuse("mmal_wrapper_buffer_get_empty", 3), "", "", true},
    {"NullFull", nullResult("mmal_wrapper_buffer_get_full"), "", "", true},
    {"Frame", refuse("mmal_port_send_buffer", 2), "", mmal + "Encode - failed to send buffer\n"},
    {"Empty", mangle("wrapper", CompletionFault::ZeroLength, 2),
     mmal + "Encode - the component delivered no picture\n", ""},
};

/// The nth call is refused; named after it.
FaultCase refusal(const std::string& call, unsigned nth, const std::string& label,
                  const std::string& out = {}, bool works = false, bool again = true) {
  const std::string err = label.empty() ? "" : omxLine(label);
  return {call + std::to_string(nth), refuse("OMX_" + call, nth), out, err, works, again};
}
const std::string port = "OMX_IndexParamPortDefinition", get = "OMX_GetParameter::" + port,
                  set = "OMX_SetParameter::" + port, setUp = hardware + "InitHardware::",
                  enable = "::OMX_CommandPortEnable::", disable = "::OMX_CommandPortDisable::",
                  state = "::OMX_CommandStateSet::OMX_State", allocate = "OMX_AllocateBuffer::";
const std::string noAnswer = omx + " - no answer to ", noIdle = noAnswer + "OMX_StateIdle\n",
                  noFill = noAnswer + "OMX_FillThisBuffer\n",
                  noDisable = noAnswer + "OMX_CommandPortDisable\n",
                  noHandle = omx + " - encoder handle is empty\n";
const std::string input = "COmxJpegEncoder::SetupInputPort::",
                  output = "COmxJpegEncoder::SetupOutputPort::",
                  inputBuffer = hardware + "AllocateInputHardwareBuffer::",
                  outputBuffer = hardware + "AllocateOutputHardwareBuffer::";
const std::string noInput = omx + " - SetupInputPort failed\n",
                  noOutput = omx + " - SetupOutputPort failed\n",
                  noInputBuffer = omx + " - AllocateOmxInputBuffer failed\n",
                  noOutputBuffer = omx + " - AllocateOmxOutputBuffer failed\n";
const FaultCase omxFaults[] = {
    refusal("Init", 1, setUp + "OMX_Init", noHandle, false, false),
    refusal("GetHandle", 1, setUp + "OMX_GetHandle", noHandle, false, false),
    refusal("GetParameter", 1, "", "", true),
    // Ports that stay enabled keep the component from reaching Idle; the next encode takes another.
    refusal("GetParameter", 3, "", noIdle),
    refusal("SendCommand", 1, setUp + "OMX_CommandPortDisable", noIdle),
    refusal("GetParameter", 5, input + get, noInput),
    refusal("SetParameter", 1, input + set, noInput),
    refusal("GetParameter", 6, input + get + "::AfterSetup", noInput),
    refusal("GetParameter", 7, output + get, noOutput),
    refusal("SetParameter", 2, output + set, noOutput),
    refusal("SetParameter", 3, output + "OMX_IndexParamQFactor", "", true),
    refusal("SendCommand", 3, hardware + "Encode::OMX_SendCommand::OMX_StateIdle"),
    refusal("SendCommand", 4, omx + enable + "Input"),
    refusal("GetParameter", 8, inputBuffer + get + "::Input", noInputBuffer),
    refusal("AllocateBuffer", 1, inputBuffer + allocate + "Input", noInputBuffer),
    // From here on buffers stay where they are, and the ports refuse to be set up again.
    refusal("SendCommand", 5, hardware + "Encode" + enable + "Output", "", false, false),
    refusal("GetParameter", 9, outputBuffer + get + "::Output", noOutputBuffer),
    refusal("AllocateBuffer", 2, outputBuffer + allocate + "Output", noOutputBuffer),
    refusal("SendCommand", 6, omx + state + "Executing", "", false, false),
    refusal("GetParameter", 10, omx + "::" + port + "::Input", "", false, false),
    refusal("EmptyThisBuffer", 1, omx + " - signal new input buffer"),
    refusal("FillThisBuffer", 1, omx + " - failed to request filling"),
    refusal("SendCommand", 7, omx + "::OMX_CommandFlush::Input", "", true),
    refusal("SendCommand", 8, omx + "::OMX_CommandFlush::Output", "", true),
    refusal("SendCommand", 9, omx + state + "Pause", "", true),
    refusal("SendCommand", 10, omx + disable + "Input", "", true, false),
    refusal("FreeBuffer", 1, "", noDisable),
    refusal("SendCommand", 11, omx + disable + "Output", "", true, false),
    refusal("FreeBuffer", 2, "", noDisable),
    refusal("SendCommand", 12, omx + state + "Idle", "", true),
    {"NoDisable", lose("EventHandler", 1, true),
     noDisable + noDisable + omx + " - invalid value for port inp[0] out[0]\n", ""},
    {"NoIdle", lose("EventHandler", 3), noIdle, ""},
    {"NoEnable", lose("EventHandler", 4), noAnswer + "OMX_CommandPortEnable\n", ""},
    {"NoExecuting", lose("EventHandler", 6), noAnswer + "OMX_StateExecuting\n", ""},
    {"NoFill", lose("FillBufferDone"), noFill, ""},
    {"NoFlush", lose("EventHandler", 8), noAnswer + "OMX_CommandFlush\n", ""},
    {"NoPause", lose("EventHandler", 9), noAnswer + "OMX_StatePause\n", ""},
    {"EmptyFill", mangle("FillBufferDone", CompletionFault::ZeroLength),
     omx + " - the component delivered no whole picture\n", ""},
    {"LateFill", delay("FillBufferDone", 1, 9900), "", "", true},
    {"FillTooLate", delay("FillBufferDone", 1, 10100), noFill, ""},
    // The port keeps its first size, and the frame is shorter than that.
    {"InputPortAsItWas", nullResult("OMX_SetParameter"),
     omx + " - frame of 16384 bytes, the input buffer takes 614400\n", ""},
};

INSTANTIATE_TEST_SUITE_P(Mmal, JpegFaults, rowsFor(&mmalJpeg(), mmalFaults), NameOf());
INSTANTIATE_TEST_SUITE_P(Omx, JpegFaults, rowsFor(&omxJpeg(), omxFaults), NameOf());

// ------------------------------------------------------------------------- waits and resources

using JpegFaultTest = FaultTest;

/// Ten seconds, or one after an error event.
TEST_P(BothJpeg, ACallWithoutAnAnswerEndsOnTimeWhateverDisturbsIt) {
  const VirtualTime time;
  const bool isMmal = GetParam()->mmal;
  const std::string out = isMmal ? mmal + "Encode - timeout\n" : noFill;
  const char* const answer = isMmal ? "wrapper" : "FillBufferDone";
  if (!isMmal) {
    JpegEncoder encoder(omxJpeg());
    inject(mangle(answer, CompletionFault::ErrorEvent, 1, static_cast<OMX_U32>(OMX_ErrorHardware)));
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, out,
                      "OmxEventsHandler - 0x80001009:the hardware failed to respond as expected\n",
                      1200);  // a second, from when the wait looks around
    control::clearFaults();
  }
  if (isMmal) {
    JpegEncoder encoder(mmalJpeg());
    inject(lose(answer, 1, true));
    interpose::clockGettime.arm(1, true);
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, out, "", 10000);
    interpose::reset();
    control::clearFaults();
  }
  for (const Disturbance how : disturbances) {
    JpegEncoder encoder(*GetParam());
    inject(lose(answer, 1, true));
    disturb(how, LimitBy::SteadyClock);
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, out, "", 10000);
    control::clearFaults();
    const Capture quiet;
    EXPECT_GT(quality(encoder.encode(picture).jpeg, encoder.expected(picture)), 30);
  }
}

/// It is refused for good, the frame between its refusals is not.
TEST_F(JpegFaultTest, ARefusedOutputBufferIsToldOnceAndLeavesTheLimit) {
  const VirtualTime time;
  JpegEncoder encoder(mmalJpeg());
  inject(refuse("mmal_port_send_buffer", 1));
  inject(refuse("mmal_port_send_buffer", 3, true));
  expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, mmal + "Encode - timeout\n",
                    mmal + "Encode - failed to send buffer\n", 10000);
}

TEST_F(JpegFaultTest, ABufferWithoutTheEndOfStreamFlagIsNoPicture) {
  const VirtualTime time;
  JpegEncoder encoder(mmalJpeg());
  marksGetLost = true;
  expectAnswer<unsigned>([&] { return encoder.encode(picture).size; }, 0xDEAD,
                         mmal + "Encode - timeout\n", "", 10000);
  marksGetLost = false;
  MMAL_WRAPPER_T nobodys{};
  MMALEncoderCallback(&nobodys);
}

TEST_F(JpegFaultTest, PortsThatStartEnabledAreDisabledFirst) {
  portsStartEnabled = true;
  for (const unsigned nth : {3u, 1u, 2u}) {
    JpegEncoder encoder(mmalJpeg());
    inject(refuse("mmal_wrapper_port_disable", nth));
    const std::string err =
        nth == 3 ? "" : step + "disable " + (nth == 1 ? "input" : "output") + " port\n";
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, nth == 3,
                      err.empty() ? "" : failed, err);
    control::clearFaults();
  }
  portsStartEnabled = false;
}

TEST_F(JpegFaultTest, WhatARefusedStepMakesPointlessIsNotAskedFor) {
  for (const auto& [nth, left] : {std::pair(5u, "Flush 341"), std::pair(8u, "PortDisable 341")}) {
    JpegEncoder encoder(omxJpeg());
    inject(refuse("OMX_SendCommand", nth));
    control::startJournal();
    const Capture quiet;
    EXPECT_EQ(encoder.encode(picture).result, 1);
    control::stopJournal();
    EXPECT_EQ(calls().find(left), std::string::npos) << calls();
    control::clearFaults();
  }
}

TEST_F(JpegFaultTest, WhatAnEarlierRequestCausedDoesNotConcernALaterOne) {
  const VirtualTime time;
  JpegEncoder encoder(omxJpeg());
  const auto both = [&] { return encoder.encode(picture).result + encoder.encode(picture).result; };
  // An answer that comes twice, and a later one of its kind that is late.
  for (const auto& [completion, later] :
       {std::pair("EventHandler", 4u), std::pair("FillBufferDone", 2u)}) {
    inject(mangle(completion, CompletionFault::Double));
    inject(delay(completion, later, 50));
    expectAnswer<int>(both, 2, "", "", 50);
    control::clearFaults();
  }
  // An error event in place of an answer shortens the wait for no other.
  inject(mangle("EventHandler", CompletionFault::ErrorEvent, 1,
                static_cast<OMX_U32>(OMX_ErrorHardware)));
  inject(delay("EventHandler", 4, 5000));
  const Capture quiet;
  EXPECT_EQ(both(), 1);
}

/// The component never gets the output buffer; somebody else says that it is filled.
TEST_F(JpegFaultTest, ABufferWithoutTheEndOfFrameFlagIsNoPicture) {
  JpegEncoder encoder(omxJpeg());
  auto& signalled = dynamic_cast<COmxJpegEncoder&>(*encoder);
  inject(nullResult("OMX_FillThisBuffer"));
  std::atomic<bool> waiting{true};
  std::thread signaller([&] {
    while (waiting) signalled.SignalOutputBufferFill(), std::this_thread::yield();
  });
  expectAnswer<unsigned>([&] { return encoder.encode(picture).size; }, 0xDEAD, "", "");
  waiting = false;
  signaller.join();
  control::clearFaults();
  EXPECT_EQ(encoder.encode(picture).result, 1);
}

TEST_F(JpegFaultTest, AnErrorOfTheMmalComponentEndsTheProcess) {
  const auto work = [](const AnyFault& fault) {
    JpegEncoder encoder(mmalJpeg());
    inject(fault);
    encoder.encode(picture);
  };
  const char* const line = "^CMmalJpegEncoder::Encode - failed to get full buffer\n$";
  EXPECT_EXIT(work(refuse("mmal_wrapper_buffer_get_full")), testing::ExitedWithCode(1), line);
  EXPECT_EXIT(work(mangle("wrapper", CompletionFault::ErrorEvent)), testing::ExitedWithCode(1),
              line);
}

TEST_F(JpegFaultTest, WithoutASemaphoreThereIsNoSetup) {
  JpegEncoder encoder(mmalJpeg());
  interpose::semInit.arm(1);
  expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, failed,
                    step + "create semaphore\n");
  EXPECT_EQ(encoder.encode(picture).result, 1);
}

/// The MMAL class looks again now and then, the OpenMAX IL one gives up.
TEST_P(BothJpeg, AClockOrASemaphoreThatDoesNotWorkHangsNobody) {
  const VirtualTime time;
  using interpose::clockGettime;
  // The clock may also work once, for the deadline alone.
  for (const auto& [broken, nth] : {std::pair(&clockGettime, 1), std::pair(&clockGettime, 2),
                                    std::pair(&interpose::semWait, 1)}) {
    JpegEncoder encoder(*GetParam());
    // The MMAL class waits for a picture that is late alone.
    for (const unsigned late : {1u, 2u}) inject(delay("wrapper", late, 50));
    {
      const Capture quiet;
      broken->arm(nth, true);
      for (int t = 0; t < 3; ++t)
        EXPECT_EQ(encoder.encode(picture).result, GetParam()->mmal ? 1 : 0);
      EXPECT_GT(broken->met.load(), 0);
      broken->disarm();
      control::clearFaults();
      encoder.encode(picture);
    }
    EXPECT_EQ(encoder.encode(picture).result, 1);
  }
}

TEST_P(BothJpeg, ShortOfMemoryLeavesNothingBehind) {
  for (const Bits bits : {0, 32}) {
    JpegEncoder encoder(*GetParam());
    Bytes frame = encoder.raw(picture, bits);
    unsigned char* array = nullptr;
    unsigned size = 5;
    const control::Census before = control::census();
    interpose::allocation.arm(1);
    EXPECT_THROW(bits == 0
                     ? (*encoder).EncodeYUYV(frame.data(), length(frame), 100, 50, &array, size)
                     : (*encoder).EncodeRGB32(frame.data(), length(frame), 100, 50, &array, size),
                 std::bad_alloc);
    interpose::allocation.disarm();
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(control::describe(control::census()), control::describe(before));
    EXPECT_EQ(encoder.encode(picture, bits).result, 1);
  }
}

/// A large picture is made by several threads of the component's, where they can be had. Without
/// any memory there it fails like an empty answer, and the next one works.
TEST_P(BothJpeg, AComponentWithoutMemoryOrThreadsLosesAPictureAtMost) {
  const Image large = scene(640, 480);
  for (int nth = 1;; ++nth) {
    JpegEncoder encoder(*GetParam());
    const Capture quiet;
    interpose::elsewhere.arm(nth, true);
    const Encoded out = encoder.encode(large);
    const bool met = interpose::elsewhere.met > 0;
    interpose::elsewhere.disarm();
    if (out.result == 1) {
      EXPECT_GT(quality(out.jpeg, encoder.expected(large)), 30) << nth;
    }
    EXPECT_EQ(encoder.encode(large).result, 1) << nth;
    if (!met) break;
    ASSERT_LT(nth, 1000);
  }
}

TEST_F(JpegFaultTest, WhatCannotBeGivenBackIsTold) {
  const VirtualTime time;
  JpegEncoder encoder(omxJpeg());
  inject(lose("FillBufferDone"));
  {
    const Capture quiet;
    encoder.encode(picture);
  }
  control::clearFaults();
  auto& made = dynamic_cast<COmxJpegEncoder&>(*encoder);
  const auto refused = omxLine(hardware + "ReleaseBuffers::OMX_FreeBuffer::Output");
  inject(refuse("OMX_FreeBuffer", 1, true));
  expectAnswer<int>([&] { return made.ReleaseBuffers(); }, 1, "",
                    omxLine(hardware + "ReleaseBuffers::OMX_FreeBuffer::Input") + refused);
  expectAnswer<int>([&] { return made.ReleaseBuffers(); }, 0, "", "");
  // On the way back to Idle the input buffer is refused, and the next call takes the component
  // down.
  for (const std::string& err : {std::string(), refused})
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, noDisable, err);
}

TEST_P(BothJpeg, TheConversationReadsLikeThis) {
  const VirtualTime time;
  control::startJournal();
  {
    JpegEncoder encoder(*GetParam());
    // MMAL keeps its setup for the second.
    for (int t = 0; t < (GetParam()->mmal ? 2 : 1); ++t) encoder.encode(scene(100, 50, t));
    encoder.encode(scene(64, 48), 24);
  }
  expectConversation(GetParam()->name);
}

}  // namespace
