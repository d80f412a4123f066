#include "support/FaultTest.h"

#include <IL/OMX_Core.h>
#include <dlfcn.h>

#include <atomic>
#include <thread>

#include "support/Calls.h"
#include "support/FaultTable.h"

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
using BothJpeg = Both<JpegClass>;
using control::CompletionFault;

const Image picture = scene(100, 50);

const std::string mmal = "CMmalJpegEncoder::", omx = "COmxJpegEncoder::Encode",
                  hardware = "CJpegHardwareEncoder::";
const std::string failed = mmal + "Encode - initialization failed\n";
const std::string step = mmal + "Initialize - failed to ";
const std::string noFill = omx + " - no answer to OMX_FillThisBuffer\n",
                  noDisable = omx + " - no answer to OMX_CommandPortDisable\n";

using JpegFaultTest = TimedFaultTest;
using JpegThreads = FaultTest;

TEST_P(BothJpeg, FaultsHaveTheirLinesAndTheNextCallIsNotFooled) {
  expectFaults(GetParam()->name);
}

TEST_P(BothJpeg, ObjectsDoNotDisturbEachOther) {
  expectIndependence(GetParam()->name);
}

/// Ten seconds, or one after an error event.
TEST_P(BothJpeg, ACallWithoutAnAnswerEndsOnTimeWhateverDisturbsIt) {
  expectLimits(GetParam()->name);
  JpegEncoder encoder(*GetParam());
  if (GetParam()->mmal) {
    inject(lose("wrapper", 1, true));
    interpose::clockGettime.arm(1, true);
    expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0,
                      mmal + "Encode - timeout\n", "", 10000);
    return;
  }
  inject(mangle("FillBufferDone", CompletionFault::ErrorEvent, 1,
                static_cast<OMX_U32>(OMX_ErrorHardware)));
  expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, noFill,
                    "OmxEventsHandler - 0x80001009:the hardware failed to respond as expected\n",
                    1200);  // a second, from when the wait looks around
}

/// It is refused for good, the frame between its refusals is not.
TEST_F(JpegFaultTest, ARefusedOutputBufferIsToldOnceAndLeavesTheLimit) {
  JpegEncoder encoder(mmalJpeg());
  inject(refuse("mmal_port_send_buffer", 1));
  inject(refuse("mmal_port_send_buffer", 3, true));
  expectAnswer<int>([&] { return encoder.encode(picture).result; }, 0, mmal + "Encode - timeout\n",
                    mmal + "Encode - failed to send buffer\n", 10000);
}

TEST_F(JpegFaultTest, ABufferWithoutTheEndOfStreamFlagIsNoPicture) {
  JpegEncoder encoder(mmalJpeg());
  marksGetLost = true;
  expectAnswer<unsigned>([&] { return encoder.encode(picture).size; }, poisonedNumber,
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
TEST_F(JpegThreads, ABufferWithoutTheEndOfFrameFlagIsNoPicture) {
  JpegEncoder encoder(omxJpeg());
  auto& signalled = dynamic_cast<COmxJpegEncoder&>(*encoder);
  inject(nullResult("OMX_FillThisBuffer"));
  std::atomic<bool> waiting{true};
  std::thread signaller([&] {
    while (waiting) signalled.SignalOutputBufferFill(), std::this_thread::yield();
  });
  expectAnswer<unsigned>([&] { return encoder.encode(picture).size; }, poisonedNumber, "", "");
  waiting = false;
  signaller.join();
  control::clearFaults();
  EXPECT_EQ(encoder.encode(picture).result, 1);
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
