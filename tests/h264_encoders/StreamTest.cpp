#include <algorithm>
#include <cstdlib>
#include <functional>

#include "support/Calls.h"
#include "support/FaultTest.h"

using namespace support;
using BothH264 = Both<H264Class>;

INSTANTIATE_TEST_SUITE_P(Classes, BothH264, testing::Values(&mmalH264(), &omxH264()), NameOf());

namespace {

Video encode(H264Encoder& encoder, const Wish& wish, int frames,
             const std::function<Image(int t)>& picture) {
  Video video;
  EXPECT_TRUE(encoder.create(wish));
  for (int t = 0; t < frames && !testing::Test::HasFailure(); ++t) {
    EXPECT_EQ(encoder.feed(picture(t)), CodecOk);
    EXPECT_TRUE(encoder.collect(video)) << t;
  }
  return video;
}

std::function<Image(int)> sceneOf(const Wish& wish) {
  return [=](int t) { return scene(std::abs(wish.width), std::abs(wish.height), t); };
}

void expectStream(const H264Class* kind, Wish wish) {
  // The OpenMAX IL class takes whole frames a second, and as many as it is told.
  if (!kind->mmal && wish.rateNum == 30000) wish.rateNum = 30;
  const unsigned rateDen = kind->mmal ? wish.rateDen : 1;
  const int frames = wish.width * wish.height > 500000 ? 4 : 40;
  H264Encoder encoder(*kind);
  const Video video = encode(encoder, wish, frames, sceneOf(wish));
  const H264Stream seen = decodeH264(video.stream);
  ASSERT_EQ(seen.pictures.size(), static_cast<std::size_t>(frames));
  EXPECT_EQ(seen.profile, 100);
  EXPECT_EQ(seen.level, kind->mmal ? 51 : 40);
  EXPECT_EQ(video.keyFrames, seen.keyFrames);
  EXPECT_EQ(seen.frameRateNum * rateDen, seen.frameRateDen * wish.rateNum);
  if (kind->mmal) {
    EXPECT_EQ(seen.aspectNum * wish.aspectDen, seen.aspectDen * wish.aspectNum);
  }
  const int width = std::abs(wish.width), height = std::abs(wish.height);
  const auto period = static_cast<int>(wish.rateNum / rateDen);
  for (int t = 0; t < frames; ++t) {
    const auto i = static_cast<std::size_t>(t);
    EXPECT_EQ(seen.keyFrames[i], t % period == 0) << t;
    // 4:2:0 has even sizes only.
    ASSERT_EQ(seen.pictures[i].width, kind->mmal ? (width + 1) & ~1 : round32(width));
    ASSERT_EQ(seen.pictures[i].height, kind->mmal ? (height + 1) & ~1 : round16(height));
    const Yuv& picture = seen.pictures[i];
    EXPECT_GT(worstPsnr({picture}, {toYuv(sceneOf(wish)(t))}), 30) << t;
    if (kind->mmal || wish.format != yuyv || picture.width == width) continue;
    EXPECT_NEAR(picture.y.back(), 16, 6) << "the padding is black";
    EXPECT_NEAR(picture.u.back(), 128, 6);
    EXPECT_NEAR(picture.v.back(), 128, 6);
  }
}

const Wish wishes[] = {
    {i420, 320, 240, 30, 1, 1, 1, 2000000},
    {yuyv, 320, 240, 15, 2, 1, 1, 2000000},
    {yuyv, 152, 100, 30000, 1001, 4, 3, 1000000},
    {i420, 100, 50, 25, 1, 16, 11, 1000000},
    {yuyv, 321, 241, 10, 1, 1, 1, 2000000},
    {yuyv, 1366, 768, 30, 1, 1, 1, 20000000},
    {yuyv, -64, -48, 30, 1, 1, 1, 500000},
    {yuyv, 2, 2, 30, 1, 1, 1, 100000},
    {i420, 1, 1, 30, 1, 1, 1, 100000},
};

TEST_P(BothH264, StreamsAreWhatWasAskedFor) {
  for (const Wish& wish : wishes) {
    SCOPED_TRACE(testing::Message() << wish.width << "x" << wish.height);
    expectStream(GetParam(), wish);
  }
}

TEST_P(BothH264, KeepsToTheBitRate) {
  for (const bool still : {false, true}) {
    const Wish wish{i420, 320, 240, 30, 1, 1, 1, 600000};
    H264Encoder encoder(*GetParam());
    const Video video =
        encode(encoder, wish, 150, [&](int t) { return scene(320, 240, still ? 0 : t); });
    const double measured = static_cast<double>(video.stream.size()) * 8 / 5;
    EXPECT_LT(measured, 660000);
    if (!still) {
      EXPECT_GT(measured, 540000);
    }
  }
}

TEST_P(BothH264, AFrameLongerThanABufferComesInPieces) {
  const bool mmal = GetParam()->mmal;
  const int width = mmal ? 640 : 64, height = mmal ? 480 : 48;
  // What an output buffer holds.
  const auto whole = static_cast<std::size_t>(mmal ? width * height : width * height * 3 / 2);
  H264Encoder encoder(*GetParam());
  ASSERT_TRUE(encoder.create({i420, width, height, 30, 1, 1, 1, 400000000}));
  Bytes stream;
  int buffers = 0;
  for (unsigned t = 0; t < 3; ++t) {
    ASSERT_EQ(encoder.feed(noise(width, height, t)), CodecOk);
    // The parameter sets, then pieces of which the last is not full.
    for (bool complete = false; !complete; ++buffers) {
      const Output out = encoder.take();
      ASSERT_EQ(out.status, CodecOk);
      stream.insert(stream.end(), out.data.begin(), out.data.end());
      complete = out.data.size() < whole && (t > 0 || buffers > 0);
    }
  }
  EXPECT_GT(buffers, 1 + 3) << "no frame was longer than a buffer: this has tested nothing";
  const H264Stream seen = decodeH264(stream);
  ASSERT_EQ(seen.pictures.size(), 3u);
  for (unsigned t = 0; t < 3; ++t)
    EXPECT_GT(worstPsnr({seen.pictures[t]}, {toYuv(noise(width, height, t))}), 25);
}

TEST_P(BothH264, CreatedAgainItStartsAfresh) {
  const Wish wish{i420, 320, 240}, smaller{yuyv, 100, 50};
  const Capture quiet;
  H264Encoder encoder(*GetParam());
  encode(encoder, wish, 3, sceneOf(wish));
  // Leaves finished data in the queue, or a frame in the component.
  ASSERT_EQ(encoder.feed(3), CodecOk);
  for (const Wish& each : {smaller, smaller, wish}) {
    H264Encoder fresh(*GetParam());
    EXPECT_EQ(encode(encoder, each, 5, sceneOf(each)).stream,
              encode(fresh, each, 5, sceneOf(each)).stream);
  }
}

}  // namespace
