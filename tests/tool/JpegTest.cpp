#include <algorithm>

#include "Shell.h"
#include "support/JpegSurgery.h"

namespace {

using support::Bytes;
using support::Image;
using support::Sampling;
using support::worstPsnr;
using support::Yuv;
using testing::HasSubstr;

Bytes rawFrame(const Image& image, const std::string& format) {
  if (format == "yuyv") return toYuyv(image, (image.width + 1) & ~1);
  return toRgb(image, std::stoi(format.substr(3)));
}

/// format, class, width, height
using Way = std::tuple<const char*, const char*, int, int>;
class JpegEncodeTest : public ToolTest, public testing::WithParamInterface<Way> {};

TEST_P(JpegEncodeTest, ColoursAreInTheirPlaces) {
  const auto [format, via, width, height] = GetParam();
  const bool omx = via == std::string("omx");
  const Image bars = support::bars(width, height);
  save("in", rawFrame(bars, format));
  succeed("tessera jpeg-encode --size " + std::to_string(width) + "x" + std::to_string(height) +
          " --format " + format + " --range full --via " + via + " in -o out.jpg");

  const Image picture = support::decodeJpegToRgb(load("out.jpg"));
  ASSERT_EQ(picture.width, omx ? support::round32(width) : width);
  ASSERT_EQ(picture.height, omx ? support::round16(height) : height);
  for (int bar = 0; bar < 8; ++bar)
    for (int c = 0; c < 3; ++c) {
      const int x = (2 * bar + 1) * width / 16, y = height / 2;
      EXPECT_NEAR(picture.at(x, y)[c], bars.at(x, y)[c], 12) << bar;
    }
  // The last bar is black, so what is repeated of it is too.
  const std::uint8_t* const corner = picture.at(picture.width - 1, picture.height - 1);
  EXPECT_LE(*std::max_element(corner, corner + 3), 12);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, JpegEncodeTest,
    testing::Values(Way{"yuyv", "mmal", 205, 97}, Way{"yuyv", "omx", 205, 97},
                    Way{"rgb16", "mmal", 192, 96}, Way{"rgb16", "omx", 205, 97},
                    Way{"rgb24", "mmal", 205, 97}, Way{"rgb24", "omx", 192, 96},
                    Way{"rgb32", "mmal", 205, 97}, Way{"rgb32", "omx", 205, 97}));

TEST_F(ToolTest, ManyFramesThroughPipesComeBackEachItself) {
  constexpr int count = 12, width = 151, height = 75;
  // Far enough apart for any one to be told from all others.
  const auto picture = [](int t) { return support::scene(width, height, 9 * t); };
  save("in", frames(count, [&](int t) { return rawFrame(picture(t), "yuyv"); }));
  succeed(
      "tessera jpeg-encode --range full --size 151x75 --format yuyv - -o - <in | tessera "
      "jpeg-decode - -o - "
      ">out.y4m");
  const Y4m decoded = fromY4m(load("out.y4m"));
  ASSERT_EQ(decoded.pictures.size(), std::size_t{count});
  for (int t = 0; t < count; ++t)
    for (int other = 0; other < count; ++other)
      EXPECT_EQ(worstPsnr({decoded.pictures[t]}, {toYuv(picture(other))}) > 33, t == other)
          << t << " against " << other;
}

/// Header beside the size, what the command line says, and whether the pictures have the full
/// range.
using RangeSaid = std::tuple<const char*, const char*, bool>;
class RangeTest : public ToolTest, public testing::WithParamInterface<RangeSaid> {};

TEST_P(RangeTest, GoesIntoTheJpegAndWithTheStream) {
  const auto [header, option, full] = GetParam();
  std::vector<Yuv> pictures = support::scenes(2, 96, 64);
  save("in.y4m", toY4m(pictures, header));
  succeed(std::string("tessera jpeg-encode in.y4m -o out.jpg ") + option +
          " && tessera jpeg-decode out.jpg -o out.y4m");
  if (!full) {
    for (Yuv& picture : pictures) {
      const auto widen = [](std::vector<std::uint8_t>& plane, double zero, double steps) {
        for (std::uint8_t& value : plane)
          value = static_cast<std::uint8_t>(
              std::clamp((value - zero) * 255 / steps + (zero == 128 ? 128.5 : 0.5), 0.0, 255.0));
      };
      widen(picture.y, 16, 219);
      widen(picture.u, 128, 224);
      widen(picture.v, 128, 224);
    }
  }
  EXPECT_GT(worstPsnr(fromY4m(load("out.y4m")).pictures, pictures), 33);

  for (const std::string name : {"out.h264", "out.mp4", "out.mkv", "out.ts"}) {
    succeed("tessera h264-encode in.y4m -o " + name + " " + option + " && tessera h264-decode " +
            name + " -o out.y4m");
    EXPECT_THAT(fromY4m(load("out.y4m")).header,
                HasSubstr(full ? "XCOLORRANGE=FULL" : "XCOLORRANGE=LIMITED"))
        << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, RangeTest,
                         testing::Values(RangeSaid{" F25:1 XCOLORRANGE=FULL", "", true},
                                         RangeSaid{" F25:1 XCOLORRANGE=LIMITED", "", false},
                                         RangeSaid{" F25:1", "", false},
                                         RangeSaid{" F25:1", "--range full", true}));

TEST_F(ToolTest, PicturesWithinPicturesAndStrayBytesDoNotConfuseTheCut) {
  const Bytes inner = support::encodeJpeg(support::flat(16, 16, 9, 9, 9), Sampling::Yuv420, 80);
  const auto size = static_cast<int>(inner.size()) + 2;
  const Bytes marker = {0xFF, 0xE1, std::uint8_t(size >> 8), std::uint8_t(size & 255)};
  const Bytes exif = surgery::insert(
      support::encodeJpeg(support::scene(64, 48), Sampling::Yuv422, 90), 2, marker + inner);
  const Bytes progressive =
      support::encodeJpeg(support::scene(64, 48, 5), Sampling::Yuv420, 90, true);
  const Bytes zeroes(7, 0), stray(9, 'x');
  save("in.mjpeg", exif + zeroes + progressive + stray + exif);

  const std::string told = succeed("tessera jpeg-decode in.mjpeg -o out.y4m");
  EXPECT_THAT(told, HasSubstr("9 bytes of in.mjpeg belong to no picture"));
  const Y4m decoded = fromY4m(load("out.y4m"));
  ASSERT_EQ(decoded.pictures.size(), 3u);
  EXPECT_THAT(decoded.header, HasSubstr(" C420jpeg XCOLORRANGE=FULL"));
  EXPECT_EQ(decoded.pictures[0].y, support::decodeJpeg(exif).y);
  EXPECT_EQ(decoded.pictures[1].y, support::decodeJpeg(progressive).y);
  EXPECT_EQ(decoded.pictures[2].y, decoded.pictures[0].y);
}

TEST_F(ToolTest, ABadPictureFailsUnlessLeftOutAndACutOneIsToldOf) {
  const Bytes good = support::encodeJpeg(support::scene(160, 120), Sampling::Yuv420, 90);
  save("in.mjpeg", good + surgery::withSize(good, 65535, 65535) + good);
  const Result refused = run("tessera jpeg-decode in.mjpeg -o out.y4m");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("picture 2 of in.mjpeg cannot be decoded (65535x65535)"));
  EXPECT_THAT(succeed("tessera jpeg-decode --keep-going in.mjpeg -o out.y4m"),
              HasSubstr("2 frames (1 left out)"));
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 2u);

  save("in.jpg", {good.data(), good.data() + good.size() / 2});
  EXPECT_THAT(succeed("tessera jpeg-decode in.jpg -o out.y4m"),
              HasSubstr("picture 1 of in.jpg is cut short"));
  EXPECT_EQ(fromY4m(load("out.y4m")).pictures.size(), 1u);
}

}  // namespace
