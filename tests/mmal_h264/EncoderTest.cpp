#include <algorithm>
#include <cmath>
#include <set>
#include <thread>

#include "H264Fixture.h"

namespace {

using support::Image;
using Picture = std::function<Image(int t)>;

struct Wish {
  unsigned int format = i420;
  int width = 320;
  int height = 240;
  unsigned int rateNum = 30;
  unsigned int rateDen = 1;
  unsigned int aspectNum = 1;
  unsigned int aspectDen = 1;
  unsigned int bitrate = 1000000;
};

bool create(IH264Encoder& encoder, const Wish& s) {
  return encoder.Create(s.format, s.width, s.height, s.rateNum, s.rateDen, s.aspectNum, s.aspectDen,
                        s.bitrate);
}

CodecStatus feed(IH264Encoder& encoder, unsigned int format, const Image& image) {
  Bytes frame = format == yuyv ? support::toYuyv(image) : support::padded(support::toYuv(image));
  return encoder.ProcessInput(frame.data(), length(frame), 0, 0);
}

struct Video {
  Bytes stream;
  std::vector<Bytes> buffers;
  std::vector<bool> keyBuffers;  ///< flags bit 0 of each
};

bool holdsSlice(const Bytes& data) {
  const std::vector<std::size_t> starts = support::nalStarts(data);
  return std::any_of(starts.begin(), starts.end() - 1, [&](std::size_t at) {
    const int type = data[at + (data[at + 2] == 1 ? 3 : 4)] & 31;
    return type == 1 || type == 5;
  });
}

/// Takes one buffer, through either overload.
CodecStatus take(IH264Encoder& encoder, bool allocating, Bytes& data, unsigned int& flags) {
  unsigned int size = 0;
  unsigned char* array = nullptr;
  data.resize(allocating ? 0 : 1 << 20);
  const CodecStatus status = patiently([&] {
    return allocating ? encoder.ProcessOutput(&array, size, flags)
                      : encoder.ProcessOutput(data.data(), length(data), size, flags);
  });
  if (array != nullptr) data.assign(array, array + size);
  data.resize(size);
  delete[] array;
  return status;
}

/// Takes the buffers of one frame.
void collect(IH264Encoder& encoder, Video& video) {
  for (bool complete = false; !complete;) {
    Bytes data;
    unsigned int flags = 99;
    ASSERT_EQ(take(encoder, video.buffers.size() % 2 == 1, data, flags), CodecOk);
    ASSERT_LE(flags, 1u);
    complete = holdsSlice(data);
    video.stream.insert(video.stream.end(), data.begin(), data.end());
    video.keyBuffers.push_back(flags == 1);
    video.buffers.push_back(std::move(data));
  }
}

Video encode(IH264Encoder& encoder, const Wish& wish, int frames, const Picture& picture) {
  Video video;
  EXPECT_TRUE(create(encoder, wish));
  for (int t = 0; t < frames && !testing::Test::HasFailure(); ++t) {
    EXPECT_EQ(feed(encoder, wish.format, picture(t)), CodecOk);
    collect(encoder, video);  // all of this frame before the next: no lag
  }
  return video;
}

Picture sceneOf(const Wish& s, int from = 0) {
  return [=](int t) { return support::scene(std::abs(s.width), std::abs(s.height), from + t); };
}

class H264Streams : public H264Test, public testing::WithParamInterface<Wish> {};

TEST_P(H264Streams, AreWhatWasAskedFor) {
  const Wish& wish = GetParam();
  const int frames = wish.width * wish.height > 500000 ? 4 : 40;
  CMmalH264Encoder encoder;
  const Video video = encode(encoder, wish, frames, sceneOf(wish));
  const support::H264Stream seen = support::decodeH264(video.stream);
  ASSERT_EQ(seen.pictures.size(), static_cast<std::size_t>(frames));
  EXPECT_EQ(seen.profile, 100);
  EXPECT_EQ(seen.level, 51);
  EXPECT_EQ(seen.frameRateNum * wish.rateDen, seen.frameRateDen * wish.rateNum);
  EXPECT_EQ(seen.aspectNum * wish.aspectDen, seen.aspectDen * wish.aspectNum);

  const auto period = static_cast<int>(wish.rateNum / wish.rateDen);
  std::vector<bool> keyFrames;  // as flagged, without the parameter sets' buffers
  for (std::size_t i = 0; i < video.buffers.size(); ++i)
    if (holdsSlice(video.buffers[i])) keyFrames.push_back(video.keyBuffers[i]);
  EXPECT_EQ(keyFrames, seen.keyFrames);
  for (int t = 0; t < frames; ++t) {
    const auto i = static_cast<std::size_t>(t);
    EXPECT_EQ(seen.keyFrames[i], t % period == 0) << t;
    const support::Yuv truth = support::toYuv(sceneOf(wish)(t));
    const support::Yuv& picture = seen.pictures[i];
    // 4:2:0 has even sizes only.
    ASSERT_EQ(picture.width, (truth.width + 1) & ~1);
    ASSERT_EQ(picture.height, (truth.height + 1) & ~1);
    Bytes luma;
    for (int y = 0; y < truth.height; ++y)
      luma.insert(luma.end(), picture.y.begin() + y * picture.width,
                  picture.y.begin() + y * picture.width + truth.width);
    EXPECT_GT(support::psnr(luma, truth.y), 30) << t;
  }
}

const Wish wishes[] = {
    {i420, 320, 240, 30, 1, 1, 1, 2000000},
    {yuyv, 320, 240, 15, 2, 1, 1, 2000000},
    {yuyv, 152, 100, 30000, 1001, 4, 3, 1000000},
    {i420, 100, 50, 25, 1, 16, 11, 1000000},
    {yuyv, 321, 241, 10, 1, 1, 1, 2000000},
    {yuyv, 1366, 768, 30, 1, 1, 1, 20000000},
    {i420, -64, -48, 30, 1, 1, 1, 500000},
    {yuyv, 2, 2, 30, 1, 1, 1, 100000},
    {i420, 1, 1, 30, 1, 1, 1, 100000},
};

INSTANTIATE_TEST_SUITE_P(Wishes, H264Streams, testing::ValuesIn(wishes), [](const auto& tested) {
  const Wish& s = tested.param;
  return std::to_string(std::abs(s.width)) + "x" + std::to_string(std::abs(s.height)) +
         (s.format == yuyv ? "_yuyv" : "_i420");
});

using H264Encoder = H264Test;

TEST_F(H264Encoder, ColoursAreInTheirPlaces) {
  for (const unsigned int format : {i420, yuyv}) {
    Wish wish;
    wish.format = format;
    const support::Yuv truth = support::toYuv(support::bars(320, 240));
    CMmalH264Encoder encoder;
    const Video video = encode(encoder, wish, 2, [](int) { return support::bars(320, 240); });
    const support::H264Stream seen = support::decodeH264(video.stream);
    ASSERT_EQ(seen.pictures.size(), 2u);
    for (std::size_t bar = 0; bar < 8; ++bar) {
      const std::size_t at = 60 * 160 + bar * 20 + 10;
      EXPECT_NEAR(seen.pictures[1].u[at], truth.u[at], 6) << bar;
      EXPECT_NEAR(seen.pictures[1].v[at], truth.v[at], 6) << bar;
    }
  }
}

TEST_F(H264Encoder, KeepsToTheBitRate) {
  Wish wish;
  wish.bitrate = 600000;
  CMmalH264Encoder encoder;
  const Video video = encode(encoder, wish, 300, sceneOf(wish));
  EXPECT_NEAR(static_cast<double>(video.stream.size()) * 8 / 10, 600000, 60000);
}

TEST_F(H264Encoder, AStillPictureDoesNotExceedTheBitRate) {
  Wish wish;
  CMmalH264Encoder encoder;
  const Video video =
      encode(encoder, wish, 90, [image = support::scene(320, 240)](int) { return image; });
  EXPECT_LT(static_cast<double>(video.stream.size()) * 8 / 3, 1100000);
}

TEST_F(H264Encoder, AFrameLongerThanABufferComesInPieces) {
  Wish wish;
  wish.width = 640;
  wish.height = 480;
  wish.bitrate = 400000000;
  CMmalH264Encoder encoder;
  ASSERT_TRUE(create(encoder, wish));
  Bytes stream;
  int buffers = 0;
  for (unsigned int t = 0; t < 3; ++t) {
    ASSERT_EQ(feed(encoder, i420, support::noise(640, 480, t)), CodecOk);
    // The parameter sets, then pieces of which the last is not full.
    for (bool complete = false; !complete; ++buffers) {
      Bytes data;
      unsigned int flags = 0;
      ASSERT_EQ(take(encoder, true, data, flags), CodecOk);
      stream.insert(stream.end(), data.begin(), data.end());
      complete = data.size() < 640 * 480 && (t > 0 || buffers > 0);
    }
  }
  EXPECT_GT(buffers, 1 + 3) << "no frame was longer than a buffer: this has tested nothing";
  const support::H264Stream seen = support::decodeH264(stream);
  ASSERT_EQ(seen.pictures.size(), 3u);
  for (unsigned int t = 0; t < 3; ++t)
    EXPECT_GT(support::lumaPsnr(seen.pictures[t], support::toYuv(support::noise(640, 480, t))), 25);
}

TEST_F(H264Encoder, ObjectsDoNotDisturbEachOther) {
  Wish wish;
  const auto series = [&](int from) {
    CMmalH264Encoder encoder;
    return encode(encoder, wish, 20, sceneOf(wish, from)).stream;
  };
  const Bytes alone = series(0);
  Bytes together;
  std::thread first([&] { together = series(0); });
  std::thread second([&] { series(100); });
  first.join();
  second.join();
  EXPECT_EQ(together, alone);
}

TEST_F(H264Encoder, CreatedAgainItStartsAfresh) {
  Wish wish, smaller;
  smaller.format = yuyv;
  smaller.width = 100;
  smaller.height = 50;
  CMmalH264Encoder encoder;
  encode(encoder, wish, 3, sceneOf(wish));
  // Leaves finished data in the queue, or a frame in the component.
  ASSERT_EQ(feed(encoder, i420, support::scene(320, 240)), CodecOk);
  const Bytes stream = encode(encoder, smaller, 5, sceneOf(smaller)).stream;
  CMmalH264Encoder fresh;
  EXPECT_EQ(stream, encode(fresh, smaller, 5, sceneOf(smaller)).stream);
  const support::H264Stream seen = support::decodeH264(stream);
  ASSERT_EQ(seen.pictures.size(), 5u);
  EXPECT_EQ(seen.pictures[0].width, 100);
}

TEST_F(H264Encoder, TheCallersBufferCostsNoAllocation) {
  CMmalH264Encoder encoder;
  ASSERT_TRUE(create(encoder, Wish{}));
  Bytes frame = support::padded(support::toYuv(support::scene(320, 240)));
  Bytes data(1 << 20);
  std::size_t before = 0;
  for (int t = 0; t < 20; ++t) {
    if (t == 1) before = support::interpose::allocationsOfLibrary();
    ASSERT_EQ(encoder.ProcessInput(frame.data(), length(frame), 0, 0), CodecOk);
    unsigned int size = 0, flags = 0;
    do {
      const auto output = [&] {
        return encoder.ProcessOutput(data.data(), length(data), size, flags);
      };
      ASSERT_EQ(patiently(output), CodecOk);
    } while (!holdsSlice(Bytes(data.begin(), data.begin() + size)));
  }
  EXPECT_EQ(support::interpose::allocationsOfLibrary(), before);
}

TEST_F(H264Encoder, ReleasesWhatItIsGiven) {
  EXPECT_EQ(ReleaseEncoderH264(nullptr), 0);
  EXPECT_EQ(ReleaseEncoderH264(CreateEncoderH264()), 1);
}

}  // namespace
