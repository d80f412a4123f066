#include <IL/OMX_Core.h>

#include <optional>

#include "H264Encoders.h"

namespace {

using namespace support;

/// A construction, a Create and a frame with one fault in them.
using H264Fault = std::tuple<const H264Class*, FaultCase>;

class H264Faults : public FaultTest, public testing::WithParamInterface<H264Fault> {
  const VirtualTime time_;
};

TEST_P(H264Faults, HaveTheirLinesAndTheObjectWorksAgain) {
  const H264Class& kind = *std::get<0>(GetParam());
  const FaultCase& its = std::get<1>(GetParam());
  std::optional<H264Encoder> encoder;
  bool created = false;
  inject(its.fault);
  expectAnswer<bool>(
      [&] {
        encoder.emplace(kind);
        return (created = encoder->create()) && encoder->works();
      },
      its.works, its.out, its.err);
  EXPECT_GE(control::faultsHit(), 1u);
  control::clearFaults();
  const Capture quiet;
  if (!created) {
    EXPECT_EQ(encoder->feed(), CodecInvalidState);
    EXPECT_EQ(encoder->take().status, CodecInvalidState);
    EXPECT_EQ(encoder->takeArray().status, CodecInvalidState);
  }
  EXPECT_EQ(encoder->create() && encoder->works(3), its.again);
  encoder.reset();
}

const std::string mmal = "CMmalH264Encoder::", omx = "COmxH264Encoder::";
const std::string inputFailed = mmal + "Create - SetInputFormat failed with 0x7\n",
                  outputFailed = mmal + "Create - SetOutputFormat failed with 0x7\n",
                  code = "failed. Error code [0x7]\n";
const std::string noComponent =
    mmal + "CMmalH264Encoder - failed to create mmal encoder component. Error code [0x";
const std::string noState = mmal + "Create - invalid state [(nil)]\n";
const FaultCase mmalFaults[] = {
    {"Component", refuse("mmal_component_create"), "", noComponent + "7]\n" + noState, false,
     false},
    {"NullComponent", nullResult("mmal_component_create"), "", noComponent + "0]\n" + noState,
     false, false},
    {"Queue", refuse("mmal_queue_create"), "", "", true},
    {"NoQueue", refuse("mmal_queue_create", 1, true), "",
     mmal + "Create - failed to create output queue\n"},
    {"InputFormat", refuse("mmal_port_format_commit"), "",
     mmal + "SetInputFormat - failed to set format for input port[0x7]\n" + inputFailed},
    {"OutputFormat", refuse("mmal_port_format_commit", 2), "",
     mmal + "SetOutputFormat - failed to set format for input port[0x7]\n" + outputFailed},
    {"Profile", refuse("mmal_port_parameter_set"), "",
     mmal + "SetOutputFormat - failed to set video profile. Error code [0x7]\n" + outputFailed},
    {"IntraPeriod", refuse("mmal_port_parameter_set_uint32"), "", "", true},
    {"InputPort", refuse("mmal_port_enable"), "", mmal + "Create - enable input port " + code},
    {"InputPool", refuse("mmal_pool_create"), "",
     mmal + "Create - creating pool for input port failed. Params(1, 4608)\n"},
    {"OutputPort", refuse("mmal_port_enable", 2), "", mmal + "Create - enable output port " + code},
    {"OutputPool", refuse("mmal_pool_create", 2), "",
     mmal + "Create - creating pool for output port failed. Params(2, 65536)\n"},
    {"Enable", refuse("mmal_component_enable"), "", mmal + "Create - enabling encoder " + code},
    {"OutputBuffer", refuse("mmal_port_send_buffer"), "", "", true},
    {"Frame", refuse("mmal_port_send_buffer", 3),
     mmal + "ProcessInput - send input buffer failed. Error code [0x7]\n", ""},
    {"EmptyOutput", mangle("output", control::CompletionFault::ZeroLength), "", ""},
    {"NoInputBuffer", refuse("mmal_queue_get", 4), "", ""},
};

/// The nth call is refused; named after it.
FaultCase refusal(const std::string& call, unsigned nth, const std::string& label,
                  const std::string& line = {}, bool works = false, bool again = true) {
  const std::string err = (label.empty() ? "" : omxLine(label)) + line;
  return {call + std::to_string(nth), refuse("OMX_" + call, nth), "", err, works, again};
}
const std::string setUp = omx + "InitializeHardware::", inFormat = omx + "SetInputFormat::",
                  get = "OMX_GetParameter::", set = "OMX_SetParameter::",
                  port = "OMX_IndexParamPortDefinition", create = omx + "Create - ",
                  step = omx + "Create::OMX_Command", inBuffer = omx + "AllocateOmxInputBuffer::",
                  outBuffer = omx + "AllocateOmxOutputBuffer::";
const std::string noHandle = create + "invalid state of encoder object.\n",
                  noIdle = create + "no answer to OMX_StateIdle\n",
                  noInput = create + "SetInputFormat failed with 0x80001000\n",
                  noOutput = create + "SetOutputFormat failed with 0x80001000\n",
                  noInputBuffer = create + "AllocateOmxInputBuffer failed 0x80001000\n",
                  noOutputBuffer = create + "AllocateOmxOutputBuffer failed 0x80001000\n";
const FaultCase omxFaults[] = {
    refusal("Init", 1, setUp + "OMX_Init", noHandle, false, false),
    refusal("GetHandle", 1, setUp + "OMX_GetHandle", noHandle, false, false),
    refusal("GetParameter", 1, "", "", true),
    // Ports that stay enabled keep the component from reaching Idle; the next Create takes another.
    refusal("GetParameter", 2, "", noIdle),
    refusal("SendCommand", 1, setUp + "OMX_CommandPortDisable", noIdle),
    refusal("SendCommand", 2, setUp + "OMX_CommandPortDisable", noIdle),
    refusal("GetParameter", 5, inFormat + get + port, noInput),
    refusal("SetParameter", 1, inFormat + set + port, noInput),
    refusal("GetParameter", 6, inFormat + get + port + "::AfterSetup", noInput),
    refusal("GetParameter", 7, omx + "SetOutputFormat::" + get + port + "::GetInput", noOutput),
    refusal("SetParameter", 2, inFormat + set + port, noOutput),
    refusal("SetParameter", 3, inFormat + "OMX_IndexParamVideoBitrate", noOutput),
    refusal("SetParameter", 4, inFormat + "OMX_IndexParamVideoPortFormat", noOutput),
    refusal("GetParameter", 8, inFormat + get + "OMX_IndexParamVideoAvc", noOutput),
    refusal("SetParameter", 5, inFormat + set + "OMX_IndexParamVideoAvc", noOutput),
    refusal("SendCommand", 3, omx + "Create::OMX_SendCommand::OMX_StateIdle"),
    refusal("SendCommand", 4, step + "PortEnable::Input"),
    refusal("GetParameter", 9, inBuffer + get + port + "::Input", noInputBuffer),
    refusal("AllocateBuffer", 1, inBuffer + "OMX_AllocateBuffer::Input", noInputBuffer),
    {"NullInputBuffer", nullResult("OMX_AllocateBuffer"), "",
     omxLine(inBuffer + "OMX_AllocateBuffer::Input") + noInputBuffer},
    refusal("SendCommand", 5, step + "PortEnable::Output"),
    refusal("GetParameter", 10, outBuffer + get + port + "::Output", noOutputBuffer),
    refusal("AllocateBuffer", 2, outBuffer + "OMX_AllocateBuffer::Output", noOutputBuffer),
    refusal("SendCommand", 6, step + "StateSet::OMX_StateExecuting"),
    // A fill that was refused is asked for again.
    refusal("FillThisBuffer", 1, create + "OMX_FillThisBuffer failed to request filling", "", true),
    refusal("FillThisBuffer", 2, omx + "ProcessOutput - OMX_FillThisBuffer failed", "", true),
    refusal("EmptyThisBuffer", 1, omx + "ProcessInput - signal new input buffer"),
    {"NoDisable", lose("EventHandler", 1), "",
     omx + "InitializeHardware - no answer to OMX_CommandPortDisable\n" + noHandle, false, false},
    {"NoIdle", lose("EventHandler", 3), "", noIdle},
    {"NoEnable", lose("EventHandler", 4), "", create + "no answer to OMX_CommandPortEnable\n"},
    {"NoExecuting", lose("EventHandler", 6), "", create + "no answer to OMX_StateExecuting\n"},
    {"NoFill", lose("FillBufferDone"), "",
     omx + "ProcessOutput - the output buffer was not filled\n"},
};

INSTANTIATE_TEST_SUITE_P(Mmal, H264Faults, rowsFor(&mmalH264(), mmalFaults), NameOf());
INSTANTIATE_TEST_SUITE_P(Omx, H264Faults, rowsFor(&omxH264(), omxFaults), NameOf());

using H264FaultTest = FaultTest;

TEST_P(BothH264, AFrameThatDoesNotGetAwayCanBeSentAgain) {
  const bool isMmal = GetParam()->mmal;
  H264Encoder encoder(*GetParam());
  ASSERT_TRUE(encoder.create());
  inject(refuse(isMmal ? "mmal_port_send_buffer" : "OMX_EmptyThisBuffer"));
  {
    const Capture quiet;
    EXPECT_EQ(encoder.feed(), CodecSendFailed);
  }
  if (isMmal) {
    control::clearFaults();
    inject(refuse("mmal_queue_get"));
    EXPECT_EQ(encoder.feed(), CodecNoBuffer);
  }
  control::clearFaults();
  EXPECT_TRUE(encoder.works(3));
}

TEST_F(H264FaultTest, APortThatStaysOpenIsReported) {
  for (const unsigned nth : {1u, 2u}) {
    H264Encoder encoder(mmalH264());
    ASSERT_TRUE(encoder.create() && encoder.works());
    Capture capture;
    inject(refuse("mmal_port_disable", nth));
    control::startJournal();
    encoder.create({i420, 32, 32});
    control::stopJournal();
    EXPECT_NE(calls().find("\nport_flush("), std::string::npos) << "the pool goes with its buffers";
    const std::string line = nth == 1 ? "SetInputFormat" : "SetOutputFormat";
    EXPECT_EQ(capture.err().find(mmal + line + " - failed to disable input port. Error code [0x7]"),
              0u);
    control::clearFaults();
    EXPECT_TRUE(encoder.create() && encoder.works(3));
  }
}

// -------------------------------------------------------------------------- waits and resources

TEST_P(BothH264, WaitsEndOnTimeWhateverDisturbsThem) {
  const bool isMmal = GetParam()->mmal;
  const LimitBy clock = isMmal ? LimitBy::WallClock : LimitBy::SteadyClock;
  H264Encoder encoder(*GetParam());
  for (const Disturbance how : disturbances) {
    // One credit, after a second Create too.
    ASSERT_TRUE(encoder.create());
    inject(lose(isMmal ? "input" : "EmptyBufferDone", 1, true));
    inject(lose(isMmal ? "output" : "FillBufferDone", 1, true));
    ASSERT_EQ(encoder.feed(), CodecOk);
    const int inputMs = disturbedMs(how, clock, isMmal ? 1000 : 10000),
              outputMs = disturbedMs(how, clock, isMmal ? 100 : 10000);
    disturb(how, clock);
    expectAnswer<CodecStatus>(
        [&] { return encoder.feed(1); }, CodecTimeout,
        isMmal ? mmal + "ProcessInput - timeout\n" : "",
        isMmal ? "" : omx + "ProcessInput - the input buffer did not come back\n", inputMs);
    disturb(how, clock);
    expectAnswer<CodecStatus>(
        [&] { return encoder.take().status; }, CodecTimeout,
        isMmal ? mmal + "ProcessOutput - timeout\n" : "",
        isMmal ? "" : omx + "ProcessOutput - the output buffer was not filled\n", outputMs);
    control::clearFaults();
  }
  const Capture quiet;
  EXPECT_TRUE(encoder.create() && encoder.works(3));
}

TEST_F(H264FaultTest, BrokenWaitsAreReported) {
  H264Encoder encoder(mmalH264());
  ASSERT_TRUE(encoder.create());
  for (auto* broken : {&interpose::clockGettime, &interpose::semWait}) {
    broken->arm(1, true);
    expectAnswer<CodecStatus>([&] { return encoder.feed(); }, CodecWaitFailed,
                              mmal + "ProcessInput - wait failed [0x4]\n", "");
    expectAnswer<CodecStatus>([&] { return encoder.take().status; }, CodecWaitFailed,
                              mmal + "ProcessOutput - wait failed [0x4]\n", "");
    broken->disarm();
  }
  EXPECT_TRUE(encoder.works(3));
}

TEST_F(H264FaultTest, WhatCannotBeMadeIsReported) {
  interpose::allocation.arm(1);
  EXPECT_THROW(CreateEncoderH264(), std::bad_alloc);
  for (const auto& [nth, which] : {std::pair(1, "input"), std::pair(2, "output")}) {
    interpose::semInit.arm(nth);
    expectAnswer<bool>([] { return CMmalH264Encoder(), true; }, true, "",
                       mmal + "CMmalH264Encoder - failed to create " + which + " semaphore\n");
  }
}

TEST_F(H264FaultTest, ACallbackWithoutAnObjectFindsNothing) {
  MMAL_POOL_T* const buffers = mmal_pool_create(2, 64);
  MMAL_PORT_T nobodys{};
  InputCallback(&nobodys, mmal_queue_get(buffers->queue));
  EXPECT_EQ(mmal_queue_length(buffers->queue), 2u);
  OutputCallback(&nobodys, mmal_queue_get(buffers->queue));
  EXPECT_EQ(mmal_queue_length(buffers->queue), 1u) << "left as it is";
  mmal_pool_destroy(buffers);
}

TEST_F(H264FaultTest, KeyFramesComeEverySecondOrEvery30WhereNoneIsKnown) {
  CMmalH264Encoder encoder;
  MMAL_COMPONENT_T* component = nullptr;
  ASSERT_EQ(mmal_component_create("vc.ril.video_encode", &component), MMAL_SUCCESS);
  ASSERT_EQ(encoder.SetInputFormat(component, i420, 64, 48, 30, 1, 1, 1), MMAL_SUCCESS);
  for (const auto& [num, den, period] : {std::tuple(0u, 1u, 30), {25u, 0u, 30}, {59u, 2u, 29}}) {
    control::startJournal();
    EXPECT_EQ(encoder.SetOutputFormat(component, 64, 48, 500000, num, den), MMAL_SUCCESS);
    EXPECT_NE(calls().find("INTRAPERIOD " + std::to_string(period) + ")"), std::string::npos)
        << num;
  }
  control::stopJournal();
  mmal_component_destroy(component);
}

/// The MMAL class loses the data and gives its buffer back; the other one keeps them.
TEST_P(BothH264, ShortOfMemoryItGoesOn) {
  H264Encoder encoder(*GetParam());
  ASSERT_TRUE(encoder.create());
  for (int t = 0; t < 6; ++t) {  // more often than there are buffers
    ASSERT_EQ(encoder.feed(t), CodecOk);
    if (t == 0) {
      ASSERT_EQ(encoder.take().status, CodecOk);
    }
    unsigned char* array = nullptr;
    unsigned size = 5, flags = 5;
    interpose::allocation.arm(1, true);
    EXPECT_THROW((*encoder).ProcessOutput(&array, size, flags), std::bad_alloc);
    interpose::allocation.disarm();
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(size, 5u);
    if (GetParam()->mmal) continue;
    const Output kept = encoder.take();
    EXPECT_EQ(kept.status, CodecOk);
    EXPECT_EQ(kept.flags, t == 0 ? 1u : 0u);
  }
  ASSERT_EQ(encoder.feed(6), CodecOk);
  EXPECT_EQ(encoder.take().status, CodecOk);
}

// -------------------------------------------------------------------------------- conversation

TEST_P(BothH264, TheConversationReadsLikeThis) {
  const Capture quiet;
  control::startJournal();
  {
    H264Encoder encoder(*GetParam());
    encoder.create({i420, 100, 50, 30, 1, 4, 3, 1000000});
    Bytes frame(12000);
    (*encoder).ProcessInput(frame.data(), length(frame), 0, timestamp);
    for (int buffer = 0; buffer < 2; ++buffer) encoder.take();
    encoder.create({yuyv, -64, 48});
  }
  expectConversation(GetParam()->name);
}

}  // namespace
