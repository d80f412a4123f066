#include <IL/OMX_Core.h>
#include <unistd.h>

#include <optional>

#include "JpegEncoders.h"

namespace {

namespace control = tessera_platform;
using control::CompletionFault;
using support::delay;
using support::FaultCase;
using support::lose;
using support::mangle;
using support::nullResult;
using support::omxLine;
using support::refuse;

const Image picture = support::scene(100, 50);

/// A construction and an encode with one fault in them.
using JpegFault = std::tuple<const JpegClass*, FaultCase>;

class JpegFaults : public support::FaultTest, public testing::WithParamInterface<JpegFault> {
 protected:
  void SetUp() override { support::interpose::hurry = 100; }  // ten seconds take a tenth of one
};

TEST_P(JpegFaults, HaveTheirLinesAndTheNextCallIsNotFooled) {
  const auto& [kind, its] = GetParam();
  std::optional<JpegEncoder> encoder;
  support::inject(its.fault);
  support::expectAnswer<int>(
      [&, &kind = kind, &its = its] {
        encoder.emplace(*kind);
        const Encoded out = encoder->encode(picture);
        EXPECT_EQ(out.size != 0xDEAD, its.works) << "a failure tells no size";
        return out.result;
      },
      its.works, its.out, its.err, 0, 4000);
  EXPECT_EQ(control::faultsHit(), 1u);
  control::clearFaults();
  const support::Capture quiet;
  for (int t = 1; t < 4; ++t) {
    const Image next = support::scene(100, 50, t);
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
    {"NullComponent", nullResult("mmal_wrapper_create"), failed, step + "create mmal component\n"},
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

FaultCase omxRefusal(const char* name, const char* call, unsigned nth, const std::string& label,
                     const std::string& out = {}, bool works = false, bool again = true) {
  return {name, refuse(call, nth), out, label.empty() ? "" : omxLine(label), works, again};
}
const std::string get = "OMX_GetParameter", set = "OMX_SetParameter",
                  port = "OMX_IndexParamPortDefinition";
const std::string noAnswer = omx + " - no answer to ",
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
    omxRefusal("Init", "OMX_Init", 1, hardware + "InitHardware::OMX_Init", noHandle, false, false),
    omxRefusal("Handle", "OMX_GetHandle", 1, hardware + "InitHardware::OMX_GetHandle", noHandle,
               false, false),
    omxRefusal("AudioPorts", "OMX_GetParameter", 1, "", "", true),
    // Ports that stay enabled keep the component from reaching Idle; the next encode takes another.
    omxRefusal("ImagePorts", "OMX_GetParameter", 3, "", noAnswer + "OMX_StateIdle\n"),
    omxRefusal("FirstDisable", "OMX_SendCommand", 1,
               hardware + "InitHardware::OMX_CommandPortDisable", noAnswer + "OMX_StateIdle\n"),
    omxRefusal("SecondDisable", "OMX_SendCommand", 2,
               hardware + "InitHardware::OMX_CommandPortDisable", noAnswer + "OMX_StateIdle\n"),
    omxRefusal("ReadInput", "OMX_GetParameter", 5, input + get + "::" + port, noInput),
    omxRefusal("WriteInput", "OMX_SetParameter", 1, input + set + "::" + port, noInput),
    omxRefusal("ReadInputAgain", "OMX_GetParameter", 6, input + get + "::" + port + "::AfterSetup",
               noInput),
    omxRefusal("ReadOutput", "OMX_GetParameter", 7, output + get + "::" + port, noOutput),
    omxRefusal("WriteOutput", "OMX_SetParameter", 2, output + set + "::" + port, noOutput),
    omxRefusal("Quality", "OMX_SetParameter", 3, output + "OMX_IndexParamQFactor", "", true),
    omxRefusal("Idle", "OMX_SendCommand", 3, hardware + "Encode::OMX_SendCommand::OMX_StateIdle"),
    omxRefusal("EnableInput", "OMX_SendCommand", 4, omx + "::OMX_CommandPortEnable::Input"),
    omxRefusal("SizeInput", "OMX_GetParameter", 8, inputBuffer + get + "::" + port + "::Input",
               noInputBuffer),
    omxRefusal("AllocateInput", "OMX_AllocateBuffer", 1, inputBuffer + "OMX_AllocateBuffer::Input",
               noInputBuffer),
    {"NullInputBuffer", nullResult("OMX_AllocateBuffer"), noInputBuffer,
     omxLine(inputBuffer + "OMX_AllocateBuffer::Input")},
    // From here on buffers stay where they are, and the ports refuse to be set up again.
    omxRefusal("EnableOutput", "OMX_SendCommand", 5,
               hardware + "Encode::OMX_CommandPortEnable::Output", "", false, false),
    omxRefusal("SizeOutput", "OMX_GetParameter", 9, outputBuffer + get + "::" + port + "::Output",
               noOutputBuffer),
    omxRefusal("AllocateOutput", "OMX_AllocateBuffer", 2,
               outputBuffer + "OMX_AllocateBuffer::Output", noOutputBuffer),
    omxRefusal("Executing", "OMX_SendCommand", 6, omx + "::OMX_CommandStateSet::OMX_StateExecuting",
               "", false, false),
    omxRefusal("ReadExecuting", "OMX_GetParameter", 10, omx + "::" + port + "::Input", "", false,
               false),
    omxRefusal("Empty", "OMX_EmptyThisBuffer", 1, omx + " - signal new input buffer"),
    omxRefusal("Fill", "OMX_FillThisBuffer", 1, omx + " - failed to request filling"),
    omxRefusal("FlushInput", "OMX_SendCommand", 7, omx + "::OMX_CommandFlush::Input", "", true),
    omxRefusal("FlushOutput", "OMX_SendCommand", 8, omx + "::OMX_CommandFlush::Output", "", true),
    omxRefusal("Pause", "OMX_SendCommand", 9, omx + "::OMX_CommandStateSet::OMX_StatePause", "",
               true),
    omxRefusal("DisableInput", "OMX_SendCommand", 10, omx + "::OMX_CommandPortDisable::Input", "",
               true, false),
    omxRefusal("FreeInput", "OMX_FreeBuffer", 1, "", noAnswer + "OMX_CommandPortDisable\n"),
    omxRefusal("DisableOutput", "OMX_SendCommand", 11, omx + "::OMX_CommandPortDisable::Output", "",
               true, false),
    omxRefusal("FreeOutput", "OMX_FreeBuffer", 2, "", noAnswer + "OMX_CommandPortDisable\n"),
    omxRefusal("IdleAgain", "OMX_SendCommand", 12, omx + "::OMX_CommandStateSet::OMX_StateIdle", "",
               true),
    {"NoIdle", lose("EventHandler", 3), noAnswer + "OMX_StateIdle\n", ""},
    {"NoEnable", lose("EventHandler", 4), noAnswer + "OMX_CommandPortEnable\n", ""},
    {"NoExecuting", lose("EventHandler", 6), noAnswer + "OMX_StateExecuting\n", ""},
    {"NoFill", lose("FillBufferDone"), noAnswer + "OMX_FillThisBuffer\n", ""},
    {"NoFlush", lose("EventHandler", 8), noAnswer + "OMX_CommandFlush\n", ""},
    {"NoPause", lose("EventHandler", 9), noAnswer + "OMX_StatePause\n", ""},
    {"EmptyFill", mangle("FillBufferDone", CompletionFault::ZeroLength),
     omx + " - the component delivered no whole picture\n", ""},
    {"LateFill", delay("FillBufferDone", 1, 700), noAnswer + "OMX_FillThisBuffer\n", ""},
};

INSTANTIATE_TEST_SUITE_P(Mmal, JpegFaults,
                         testing::Combine(testing::Values(&mmalJpeg()),
                                          testing::ValuesIn(mmalFaults)),
                         support::NameOf());
INSTANTIATE_TEST_SUITE_P(Omx, JpegFaults,
                         testing::Combine(testing::Values(&omxJpeg()),
                                          testing::ValuesIn(omxFaults)),
                         support::NameOf());

// ------------------------------------------------------------------------- waits and resources

using JpegFaultTest = support::FaultTest;

/// Ten seconds, here one, and after an error event one more second, here a tenth: on time, whatever
/// signals come, and a late answer answers nothing.
TEST_P(BothJpeg, AnAnswerThatDoesNotComeEndsTheCallOnTime) {
  support::interpose::hurry = 10;
  const bool isMmal = GetParam()->mmal;
  const std::string out = isMmal ? mmal + "Encode - timeout\n" : noAnswer + "OMX_FillThisBuffer\n";
  const char* const answer = isMmal ? "wrapper" : "FillBufferDone";
  for (const bool storm : {false, true}) {
    JpegEncoder encoder(*GetParam());
    support::inject(lose(answer, 1, true));
    {
      const support::SignalStorm signals(storm);
      support::expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, out, "", 990,
                                 4000);
    }
    control::clearFaults();
    const support::Capture quiet;
    EXPECT_GT(quality(encoder.encode(picture).jpeg, encoder.expected(picture)), 30);
  }
}

TEST_F(JpegFaultTest, AnErrorEventLeavesTheWaitOneMoreSecond) {
  support::interpose::hurry = 10;
  JpegEncoder encoder(omxJpeg());
  support::inject(mangle("FillBufferDone", CompletionFault::ErrorEvent, 1,
                         static_cast<OMX_U32>(OMX_ErrorHardware)));
  support::expectAnswer<int>(
      [&] { return encoder.encode(picture).result; }, 0, noAnswer + "OMX_FillThisBuffer\n",
      "OmxEventsHandler - 0x80001009:the hardware failed to respond as expected\n", 100, 900);
}

TEST_F(JpegFaultTest, AnErrorOfTheMmalComponentEndsTheProcess) {
  const auto work = [](const support::AnyFault& fault) {
    JpegEncoder encoder(mmalJpeg());
    support::inject(fault);
    encoder.encode(picture);
  };
  const char* const line = "^CMmalJpegEncoder::Encode - failed to get full buffer\n$";
  EXPECT_EXIT(work(refuse("mmal_wrapper_buffer_get_full")), testing::ExitedWithCode(1), line);
  EXPECT_EXIT(work(mangle("wrapper", CompletionFault::ErrorEvent)), testing::ExitedWithCode(1),
              line);
}

TEST_F(JpegFaultTest, WithoutASemaphoreThereIsNoSetup) {
  JpegEncoder encoder(mmalJpeg());
  support::interpose::semInit.arm(1);
  support::expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, failed,
                             step + "create semaphore\n");
  EXPECT_EQ(encoder.encode(picture).result, 1);
}

/// The MMAL class looks again now and then, the OpenMAX IL one gives up.
TEST_P(BothJpeg, AClockOrASemaphoreThatDoesNotWorkHangsNobody) {
  using support::interpose::clockGettime;
  // The clock may also work once, for the deadline alone.
  for (const auto& [broken, nth] : {std::pair(&clockGettime, 1), std::pair(&clockGettime, 2),
                                    std::pair(&support::interpose::semWait, 1)}) {
    JpegEncoder encoder(*GetParam());
    {
      const support::Capture quiet;
      broken->arm(nth, true);
      for (int t = 0; t < 3; ++t)
        EXPECT_EQ(encoder.encode(picture).result, GetParam()->mmal ? 1 : 0);
      EXPECT_GT(broken->met.load(), 0);
      broken->disarm();
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
    support::interpose::allocation.arm(1);
    EXPECT_THROW(bits == 0
                     ? (*encoder).EncodeYUYV(frame.data(), length(frame), 100, 50, &array, size)
                     : (*encoder).EncodeRGB32(frame.data(), length(frame), 100, 50, &array, size),
                 std::bad_alloc);
    support::interpose::allocation.disarm();
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(control::describe(control::census()), control::describe(before));
    EXPECT_EQ(encoder.encode(picture, bits).result, 1);
  }
}

TEST_F(JpegFaultTest, WhatCannotBeGivenBackIsTold) {
  JpegEncoder encoder(omxJpeg());
  support::inject(lose("FillBufferDone"));
  {
    const support::Capture quiet;
    encoder.encode(picture);
  }
  control::clearFaults();
  // The next call takes the component down.
  for (const unsigned nth : {1u, 2u}) support::inject(refuse("OMX_FreeBuffer", nth));
  support::Capture capture;
  encoder.encode(picture);
  EXPECT_EQ(capture.err(), omxLine(hardware + "ReleaseBuffers::OMX_FreeBuffer::Input") +
                               omxLine(hardware + "ReleaseBuffers::OMX_FreeBuffer::Output"));
}

TEST_F(JpegFaultTest, AHandleThatCannotBeFreedIsTold) {
  const auto leave = [] {  // it stays, so it happens elsewhere
    {
      JpegEncoder encoder(omxJpeg());
      support::inject(refuse("OMX_FreeHandle"));
    }
    _exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0),
              "^" + omxLine(hardware + "ReleaseHardware::OMX_FreeHandle"));
}

TEST_P(BothJpeg, TheConversationReadsLikeThis) {
  control::startJournal();
  {
    JpegEncoder encoder(*GetParam());
    for (int t : {0, 1}) encoder.encode(support::scene(100, 50, t));
    encoder.encode(support::scene(64, 48), 24);
  }
  support::expectConversation(GetParam()->name);
}

}  // namespace
