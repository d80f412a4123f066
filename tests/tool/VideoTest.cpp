#include <nlohmann/json.hpp>

#include "Shell.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using support::Bytes;
using support::H264Stream;
using support::scenes;
using support::worstPsnr;
using testing::HasSubstr;

struct Way {
  const char* name;
  const char* arguments;
  int width, height;
  int codedWidth, codedHeight;
};
class H264EncodeTest : public ToolTest, public testing::WithParamInterface<Way> {};

TEST_P(H264EncodeTest, EveryFrameComesOutInItsPlace) {
  constexpr int count = 40;
  const Way& way = GetParam();
  const auto pictures = scenes(count, way.width, way.height);
  const bool yuyv = std::string(way.arguments).find("yuyv") != std::string::npos;
  const auto frame = [&](int t) {
    return yuyv ? toYuyv(support::scene(way.width, way.height, t), (way.width + 1) & ~1)
                : toI420(pictures[t]);
  };
  if (way.arguments[0] == '\0' || way.arguments[2] == 'v')
    save("in", toY4m(pictures, " F15:1 Ip A4:3 C420jpeg"));
  else
    save("in", frames(count, frame));

  const std::string told =
      succeed(std::string("tessera h264-encode --bitrate 4M ") + way.arguments + " in -o out.h264");
  EXPECT_THAT(told, HasSubstr("40 frames of "));
  const H264Stream stream = support::decodeH264(load("out.h264"));
  ASSERT_EQ(stream.pictures.size(), std::size_t{count});
  EXPECT_EQ(stream.pictures[0].width, way.codedWidth);
  EXPECT_EQ(stream.pictures[0].height, way.codedHeight);
  EXPECT_GT(worstPsnr(stream.pictures, pictures), 30);
}

constexpr Way ways[] = {
    {"Y4m", "", 160, 96, 160, 96},
    {"Y4mPadded", "", 100, 50, 100, 50},
    {"Y4mOdd", "", 101, 51, 102, 52},
    {"RawI420", "--size 100x50 --format i420", 100, 50, 100, 50},
    {"RawYuyv", "--size 100x50 --format yuyv", 100, 50, 100, 50},
    {"Y4mOmx", "--via omx", 100, 50, 128, 64},
    {"RawYuyvOmx", "--size 100x50 --format yuyv --via omx", 100, 50, 128, 64},
};
INSTANTIATE_TEST_SUITE_P(Ways, H264EncodeTest, testing::ValuesIn(ways),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(ToolTest, RateAspectAndCountSurviveContainers) {
  save("in.y4m", toY4m(scenes(30, 160, 96), " F15:1 Ip A4:3 C420jpeg"));
  for (const std::string name : {"out.mp4", "out.mkv", "out.ts", "out.h264"}) {
    const std::string told = succeed("tessera h264-encode in.y4m --json -o " + name +
                                     " && tessera h264-decode " + name + " -q -o out.y4m");
    // A slow machine may let the library say that an output is late.
    const std::size_t last = told.rfind("{\"command\"");
    ASSERT_NE(last, std::string::npos) << told;
    const auto summary = nlohmann::json::parse(told.substr(last));
    EXPECT_EQ(summary["frames"], 30);
    EXPECT_EQ(summary["bytes_out"], load(name).size());
    const Y4m decoded = fromY4m(load("out.y4m"));
    EXPECT_EQ(decoded.pictures.size(), 30u) << name;
    EXPECT_THAT(decoded.header, HasSubstr(" F15:1 Ip A4:3 "));
    EXPECT_GT(worstPsnr(decoded.pictures, scenes(30, 160, 96)), 30) << name;
  }
}

TEST_F(ToolTest, EveryPictureComesBitForBitInPresentationOrder) {
  const Bytes stream = support::encodeH264({302, 170, 25, 3, 4}).stream;
  save("in.264", stream);
  succeed("tessera h264-decode - -o out.i420 <in.264");
  const auto expected = support::decodeH264(stream).pictures;
  ASSERT_EQ(expected.size(), 25u);
  EXPECT_EQ(load("out.i420"), frames(25, [&](std::size_t i) { return toI420(expected[i]); }));
}

TEST_F(ToolTest, FramesInPiecesAreWholeAndWaitForNothing) {
  for (const std::string how :
       {"30x14 --via mmal", "30x14 --via omx", "320x240 --via mmal", "320x240 --via omx"}) {
    const bool small = how[2] == 'x';
    save("in", frames(20, [&](unsigned seed) {
           return toYuyv(support::noise(small ? 30 : 320, small ? 14 : 240, seed));
         }));
    const std::string told =
        succeed("tessera h264-encode -v --format yuyv --bitrate 60M in -o out.mkv --size " + how);
    // A busy machine may miss some limits, but not one for each frame, nor the ten seconds.
    std::size_t timeOuts = 0;
    for (std::size_t at = 0; (at = told.find("timeout", at)) != std::string::npos; ++at) ++timeOuts;
    EXPECT_LT(timeOuts, 10u) << how << told;
    EXPECT_THAT(told, testing::Not(HasSubstr("not filled"))) << how;
    EXPECT_THAT(told, HasSubstr("20 frames of")) << how;
    EXPECT_THAT(succeed("tessera h264-decode out.mkv -o out.y4m"),
                testing::StartsWith("20 frames of"))
        << how;
  }
}

TEST_F(ToolTest, OneThreadGivesTheSameBytesWhateverTheMachine) {
  save("in.y4m", toY4m(scenes(6, 960, 544), " F25:1"));
  succeed(
      "export TESSERA_THREADS=1; tessera h264-encode in.y4m -o one.h264 && "
      "taskset -c 0 ./.tool h264-encode in.y4m -o two.h264");
  EXPECT_EQ(load("one.h264"), load("two.h264"));
  // More threads code a picture in more slices: the switch is not there for nothing.
  succeed("TESSERA_THREADS=3 tessera h264-encode in.y4m -o two.h264");
  EXPECT_NE(load("one.h264"), load("two.h264"));
}

/// What the last line tells of a stream that is not as it should be.
TEST_F(ToolTest, WhatIsWrongWithAStreamIsCountedAndTold) {
  const support::H264Made made = support::encodeH264({320, 240, 20, 0, 1, 10});
  const auto units = [&](std::size_t first, std::size_t last) {
    const std::uint8_t* const stream = made.stream.data();
    return Bytes(stream + made.units[first], stream + made.units[last]);
  };
  const auto told = [&](const Bytes& stream) {
    save("in.264", stream);
    return succeed("tessera h264-decode in.264 -o out.y4m");
  };
  EXPECT_THAT(told(units(0, 14) + units(16, 20)), HasSubstr("2 missing"));
  EXPECT_THAT(told(units(3, 20)), HasSubstr("7 before the first key frame"));
  EXPECT_THAT(told(support::encodeH264({320, 256, 20, 0, 1, 10, 24, true}).stream),
              HasSubstr("20 interlaced"));
  EXPECT_THAT(fromY4m(load("out.y4m")).header, HasSubstr(" It "));
  EXPECT_THAT(told(made.stream), testing::Not(HasSubstr("(")));
}

TEST_F(ToolTest, ChangingSizesFitIntoPlanesOnly) {
  const auto jpeg = [](int width, int height) {
    return support::encodeJpeg(support::scene(width, height), support::Sampling::Yuv420, 90);
  };
  save("in.mjpeg", jpeg(320, 240) + jpeg(160, 128));
  save("in.264", support::encodeH264({320, 240, 10, 2}).stream +
                     support::encodeH264({160, 128, 10, 2}).stream);
  for (const auto& [command, count] :
       {std::pair("jpeg-decode in.mjpeg", 1u), {"h264-decode in.264", 10u}}) {
    const Result refused = run(std::string("tessera ") + command + " -o out.y4m");
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("change from 320x240 to 160x128"));
    EXPECT_TRUE(load("out.y4m").empty());
    succeed(std::string("tessera ") + command + " -o out.i420");
    EXPECT_EQ(load("out.i420").size(), count * (320 * 240 + 160 * 128) * 3 / 2);
  }
}

}  // namespace
