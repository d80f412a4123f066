
#include "H264Encoders.h"

namespace {

using namespace support;

class LateAnswers : public FaultTest {
  const VirtualTime time_;
};
const std::string omx = "COmxH264Encoder::";

/// Two lost or late fills: each a time-out, and afterwards the frame fed last is the one that comes
/// out. Key frames come every second frame, so that a stream with a hole recovers.
TEST_F(LateAnswers, ALateFillIsNeverTheNextFrames) {
  constexpr unsigned lateMs = 10100;
  for (const unsigned delayMs : {0u, lateMs})
    for (const unsigned nth : {1u, 2u, 4u}) {
      SCOPED_TRACE(testing::Message() << "fill " << nth << ", " << delayMs << " ms late");
      const Capture quiet;
      H264Encoder encoder(omxH264());
      ASSERT_TRUE(encoder.create({yuyv, 64, 48, 2, 1, 1, 1, 1000000}));
      for (const unsigned each : {nth, nth + 3})
        inject(delayMs == 0 ? lose("FillBufferDone", each)
                            : delay("FillBufferDone", each, delayMs));
      // Each frame has a brightness of its own, so that the pictures tell which came out.
      Bytes stream;
      int lost = 0;
      for (int t = 0; t < 8; ++t) {
        const auto grey = static_cast<std::uint8_t>(20 + 30 * t);
        encoder.feed(flat(64, 48, grey, grey, grey));
        for (int buffer = t == 0 ? 0 : 1; buffer < 2; ++buffer) {
          const Output out = encoder.take();
          lost += out.status == CodecTimeout;
          if (out.status == CodecTimeout) break;
          stream.insert(stream.end(), out.data.begin(), out.data.end());
        }
      }
      EXPECT_EQ(lost, 2);
      EXPECT_EQ(control::faultsHit(), 2u);
      control::clearFaults();
      const H264Stream seen = decodeH264(stream);
      ASSERT_FALSE(seen.pictures.empty());
      const Yuv& last = seen.pictures.back();
      EXPECT_NEAR(last.y[static_cast<std::size_t>(last.width) * 24 + 32], 230, 12);
    }
}

TEST_F(LateAnswers, WaitingAgainGivesTheLateAnswer) {
  for (const bool input : {false, true}) {
    H264Encoder encoder(omxH264());
    ASSERT_TRUE(encoder.create());
    inject(delay(input ? "EmptyBufferDone" : "FillBufferDone", 1, 15000));
    ASSERT_EQ(encoder.feed(), CodecOk);
    {
      const Capture quiet;
      EXPECT_EQ(input ? encoder.feed(1) : encoder.take().status, CodecTimeout);
    }
    Video video;
    EXPECT_TRUE(encoder.collect(video));
    EXPECT_TRUE(encoder.feed(1) == CodecOk && encoder.collect(video));
    EXPECT_EQ(decodeH264(video.stream).pictures.size(), 2u);
    control::clearFaults();
  }
}

/// The way out of a fill that was given up is a flush; what can go wrong with it is told.
TEST_F(LateAnswers, AFlushForALateFillMayFail) {
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

TEST_F(LateAnswers, WhatCannotBeGivenBackIsTold) {
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

}  // namespace
