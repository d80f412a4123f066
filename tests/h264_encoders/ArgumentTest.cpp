#include <climits>
#include <fstream>
#include <iomanip>

#include "support/Calls.h"
#include "support/FaultTest.h"

namespace {

using namespace support;
using BothH264 = Both<H264Class>;
using MmalH264 = TimedFaultTest;
using OmxH264 = TimedFaultTest;

/// Lines with addresses left out: "[0x]".
std::string withoutAddresses(std::string lines) {
  for (std::size_t at = 0; (at = lines.find("[0x", at)) != std::string::npos; at += 3)
    lines.erase(at + 3, lines.find(']', at) - at - 3);
  return lines;
}

/// Each row of the file beside has a call, null or memory for it, a number of bytes, what is wrong
/// with it and the line of each class.
TEST_P(BothH264, WrongArgumentsAndStatesAreTold) {
  H264Encoder made(*GetParam());
  IH264Encoder& encoder = *made;
  Bytes data(100);
  std::ifstream file(TESSERA_H264_ARGUMENTS);
  std::string call, memory, wrong, mmal, omx;
  unsigned bytes = 0;
  int rows = 0;
  for (; file >> call >> memory >> bytes >> wrong >> std::quoted(mmal) >> std::quoted(omx);
       ++rows) {
    unsigned char* const at = memory == "null" ? nullptr : data.data();
    unsigned char* array = data.data();
    unsigned size = 7, flags = 7;
    Capture capture;
    EXPECT_EQ(call == "input" ? encoder.ProcessInput(at, bytes, 0, 0)
              : call == "output"
                  ? encoder.ProcessOutput(at, bytes, size, flags)
                  : encoder.ProcessOutput(at == nullptr ? nullptr : &array, size, flags),
              wrong == "state" ? CodecInvalidState : CodecInvalidArgument);
    EXPECT_EQ(withoutAddresses(capture.err()),
              GetParam()->name + (GetParam()->mmal ? mmal : omx) + '\n');
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(flags, call == "input" ? 7u : 0u);
    EXPECT_EQ(array, data.data());
  }
  EXPECT_EQ(rows, 8);
  ASSERT_TRUE(made.create());
  EXPECT_EQ(encoder.ProcessInput(data.data(), 0, 0, 0), CodecOk)
      << "no data is encoded as far as it goes";
  EXPECT_EQ(ReleaseEncoderH264(nullptr), 0);
}

TEST_F(MmalH264, WishesThatAreRefusedEndWhatRanBefore) {
  const std::string start = "CMmalH264Encoder::SetInputFormat - ",
                    end = "\nCMmalH264Encoder::Create - SetInputFormat failed with 0x3\n",
                    size = "image dimensions are not supported ",
                    rate = "frame rate is not supported ",
                    aspect = "pixel aspect ratio is not supported ";
  // The first thing that is wrong is told.
  const std::pair<Wish, std::string> refused[] = {
      {{0x3231564e, 0, 48, 0, 1, 0, 1}, "image pixel format is not supported 0x3231564e."},
      {{i420, 0, -48, 0, 1, 0, 1}, size + "0x-48"},
      {{yuyv, 64, 0}, size + "64x0"},
      {{yuyv, 64, 48, 25, 0}, rate + "25x0"},
      {{i420, 64, 48, 0, 1}, rate + "0x1"},
      {{i420, 64, 48, 30, 1, 0, 1}, aspect + "0x1"},
      {{i420, 64, 48, 30, 1, 1, 0}, aspect + "1x0"},
  };
  H264Encoder encoder(mmalH264());
  for (const auto& [wish, told] : refused) {
    expectAnswer<bool>([&, &wish = wish] { return encoder.create(wish); }, false, "",
                       start + told + end);
    const Capture quiet;
    EXPECT_EQ(encoder.feed(scene(64, 48)), CodecInvalidState);
    ASSERT_TRUE(encoder.create());
    EXPECT_TRUE(encoder.works(3));
  }
}

TEST_F(OmxH264, RefusesAFormatAndSurvivesOddSizes) {
  H264Encoder encoder(omxH264());
  expectAnswer<bool>(
      [&] { return encoder.create({0x12345678}); }, false, "",
      "COmxH264Encoder::SetInputFormat - input image format 0x12345678 is not supported.\n"
      "COmxH264Encoder::Create - SetInputFormat failed with 0x80001006\n");
  const Capture quiet;
  for (const int width : {0, INT_MIN, INT_MAX}) {
    H264Encoder another(omxH264());
    another.create({yuyv, width, width});
    another.feed(scene(16, 16));
  }
  EXPECT_TRUE(encoder.create() && encoder.works());
}

TEST_P(BothH264, WhatDoesNotFitIsToldAndGone) {
  H264Encoder encoder(*GetParam());
  ASSERT_TRUE(encoder.create());
  ASSERT_EQ(encoder.feed(), CodecOk);
  const Output small = encoder.take(1);
  EXPECT_EQ(small.status, CodecBufferTooSmall);
  EXPECT_GT(small.size, 10u);
  EXPECT_EQ(small.flags, 0u);
  EXPECT_EQ(small.data, Bytes{poison});
  // The frame, after the parameter sets.
  const Output next = encoder.take();
  EXPECT_EQ(next.status, CodecOk);
  EXPECT_EQ(next.flags, 1u);
  EXPECT_EQ(next.data.at(4) & 31, 5);
}

}  // namespace
