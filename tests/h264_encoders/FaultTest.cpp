#include "support/FaultTest.h"

#include "support/Calls.h"
#include "support/FaultTable.h"

namespace {

using namespace support;
using BothH264 = Both<H264Class>;

const std::string mmal = "CMmalH264Encoder::", omx = "COmxH264Encoder::";

using H264FaultTest = TimedFaultTest;

TEST_P(BothH264, FaultsHaveTheirLinesAndTheObjectWorksAgain) {
  expectFaults(GetParam()->name);
}

TEST_P(BothH264, WaitsEndOnTimeWhateverDisturbsThem) {
  expectLimits(GetParam()->name);
}

TEST_P(BothH264, ObjectsDoNotDisturbEachOther) {
  expectIndependence(GetParam()->name);
}

TEST_P(BothH264, AFrameThatDoesNotGetAwayCanBeSentAgain) {
  const bool isMmal = GetParam()->mmal;
  H264Encoder encoder(*GetParam());
  ASSERT_TRUE(encoder.create());
  Video video;
  for (int t = 0; t < 3; ++t) {
    const Capture quiet;
    inject(refuse(isMmal ? "mmal_port_send_buffer" : "OMX_EmptyThisBuffer"));
    EXPECT_EQ(encoder.feed(t), CodecSendFailed);
    control::clearFaults();
    if (isMmal) inject(refuse("mmal_queue_get"));
    EXPECT_EQ(encoder.feed(t), isMmal ? CodecNoBuffer : CodecOk);
    control::clearFaults();
    EXPECT_TRUE((!isMmal || encoder.feed(t) == CodecOk) && encoder.collect(video)) << t;
  }
  EXPECT_EQ(decodeH264(video.stream).pictures.size(), 3u);
}

/// Two lost or late fills: each a time-out, and afterwards the frame fed last is the one that comes
/// out.
TEST_F(H264FaultTest, ALateFillIsNeverTheNextFrames) {
  for (const unsigned delayMs : {0u, 10100u})
    for (const unsigned nth : {1u, 2u, 4u}) {
      SCOPED_TRACE(testing::Message() << "fill " << nth << ", " << delayMs << " ms late");
      const Capture quiet;
      const std::unique_ptr<Driver> driver = driverClass(omxH264().name).make();
      EXPECT_TRUE(driver->make().good);
      for (const unsigned each : {nth, nth + 3})
        inject(delayMs == 0 ? lose("FillBufferDone", each)
                            : delay("FillBufferDone", each, delayMs));
      for (int t = 0; t < 8; ++t) EXPECT_EQ(driver->frame(t).problem, "") << t;
      EXPECT_EQ(control::faultsHit(), 2u);
      control::clearFaults();
      EXPECT_TRUE(driver->goOn(false).good);
    }
}

/// The way out of a fill that was given up is a flush; what can go wrong with it is told.
TEST_F(H264FaultTest, AFlushForALateFillMayFail) {
  const std::string late = omx + "ProcessInput - the late output did not come back\n";
  const std::pair<AnyFault, std::string> table[] = {
      {refuse("OMX_SendCommand"), omxLine(omx + "ProcessInput::OMX_CommandFlush::Output")},
      {lose("EventHandler", 1, true), late},
      {refuse("OMX_FillThisBuffer"), omxLine(omx + "ProcessInput - OMX_FillThisBuffer failed")}};
  for (const auto& [fault, line] : table) {
    H264Encoder encoder(omxH264());
    ASSERT_TRUE(encoder.create() && encoder.works());
    Capture capture;
    inject(lose("FillBufferDone"));
    encoder.feed(1);
    EXPECT_EQ(encoder.take().status, CodecTimeout);
    const std::size_t before = capture.err().size();
    inject(fault);
    const CodecStatus status = encoder.feed(2);
    EXPECT_EQ(status == CodecOk, line.find("Fill") != std::string::npos) << line;
    EXPECT_EQ(capture.err().substr(before, line.size()), line);
    control::clearFaults();
    EXPECT_TRUE(encoder.create() && encoder.works());
  }
}

TEST_F(H264FaultTest, WhatCannotBeGivenBackIsTold) {
  Capture capture;
  {
    H264Encoder encoder(omxH264());
    ASSERT_TRUE(encoder.create());
    for (const unsigned nth : {1u, 2u}) inject(refuse("OMX_FreeBuffer", nth));
  }
  EXPECT_NE(capture.err().find(omxLine(omx + "ReleaseBuffers::OMX_FreeBuffer::Input") +
                               omxLine(omx + "ReleaseBuffers::OMX_FreeBuffer::Output")),
            std::string::npos);
}

TEST_F(H264FaultTest, WhatCannotBeMadeIsReported) {
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
