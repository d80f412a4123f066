#include <climits>

#include "H264Encoders.h"

namespace {

using namespace support;

/// Lines with addresses left out: "[0x]".
std::string withoutAddresses(std::string lines) {
  for (std::size_t at = 0; (at = lines.find("[0x", at)) != std::string::npos; at += 3)
    lines.erase(at + 3, lines.find(']', at) - at - 3);
  return lines;
}

TEST_P(BothH264, WrongArgumentsAndStatesAreTold) {
  H264Encoder made(*GetParam());
  IH264Encoder& encoder = *made;
  Bytes data(100);
  unsigned size = 7, flags = 7;
  using Call = std::function<CodecStatus()>;
  const auto input = [&](unsigned char* from, unsigned bytes) -> Call {
    return [=, &encoder] { return encoder.ProcessInput(from, bytes, 0, 0); };
  };
  const auto output = [&](unsigned char* to, unsigned capacity) -> Call {
    return
        [=, &encoder, &size, &flags] { return encoder.ProcessOutput(to, capacity, size, flags); };
  };
  const auto array = [&](unsigned char** to) -> Call {
    return [=, &encoder, &size, &flags] { return encoder.ProcessOutput(to, size, flags); };
  };
  unsigned char* old = data.data();
  const std::string in = "::ProcessInput - invalid ", out = "::ProcessOutput - invalid ";
  const struct {
    Call call;
    CodecStatus status;
    std::string mmal, omx;
  } table[] = {
      {input(nullptr, 0), CodecInvalidArgument, in + "input arguments [(nil)][0]\n", ""},
      {input(nullptr, 5), CodecInvalidArgument, in + "input arguments [(nil)][5]\n", ""},
      {input(data.data(), 5), CodecInvalidState, in + "state [0x] [(nil)]\n", ""},
      {array(nullptr), CodecInvalidArgument, out + "input argument\n",
       out + "input arguments [(nil)]\n"},
      {array(&old), CodecInvalidState, out + "state [0x] [(nil)][0x]\n",
       out + "state [0x] [(nil)]\n"},
      {output(nullptr, 9), CodecInvalidArgument, out + "input parameters [(nil)][9]\n",
       out + "input arguments [(nil)] [9]\n"},
      {output(data.data(), 0), CodecInvalidArgument, out + "input parameters [0x][0]\n",
       out + "input arguments [0x] [0]\n"},
      {output(data.data(), 9), CodecInvalidState, out + "state [0x] [(nil)][0x]\n",
       out + "state [0x] [(nil)]\n"},
  };
  for (const auto& tested : table) {
    Capture capture;
    flags = 7;
    EXPECT_EQ(tested.call(), tested.status);
    const bool omx = !GetParam()->mmal && !tested.omx.empty();
    const std::string line = GetParam()->name + (omx ? tested.omx : tested.mmal);
    EXPECT_EQ(withoutAddresses(capture.err()), line);
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(flags, line.find(in) == std::string::npos ? 0u : 7u);
    EXPECT_EQ(old, data.data());
  }
  ASSERT_TRUE(made.create());
  EXPECT_EQ(input(data.data(), 0)(), CodecOk) << "no data is encoded as far as it goes";
  EXPECT_EQ(ReleaseEncoderH264(nullptr), 0);
}

TEST(MmalH264, WishesThatAreRefusedEndWhatRanBefore) {
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

TEST(OmxH264, RefusesAFormatAndSurvivesOddSizes) {
  H264Encoder encoder(omxH264());
  expectAnswer<bool>(
      [&] { return encoder.create({0x12345678}); }, false, "",
      "COmxH264Encoder::SetInputFormat - input image format 0x12345678 is not supported.\n"
      "COmxH264Encoder::Create - SetInputFormat failed with 0x80001006\n");
  const VirtualTime time;
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
