#include <tessera/IH264Encoder.h>

#include <algorithm>
#include <climits>
#include <functional>

#include "H264Fixture.h"

namespace {

using support::Bytes;
using support::Image;

// ------------------------------------------------------------------------------ round trips

using Case = std::tuple<std::pair<int, int>, unsigned int>;

class OmxH264 : public OmxTest, public testing::WithParamInterface<Case> {};

TEST_P(OmxH264, OneFrameInOneFrameOutOfTheRoundedSize) {
  const auto [size, format] = GetParam();
  COmxH264Encoder encoder;
  ASSERT_TRUE(create(encoder, size.first, size.second, format, 4000000));
  Output sets;
  Bytes stream;
  std::vector<Image> frames;
  std::vector<bool> keyFrames;
  for (int t = 0; t < 45; ++t) {
    frames.push_back(support::scene(size.first, size.second, t));
    ASSERT_EQ(feed(encoder, frames.back(), format), CodecOk) << t;
    if (t == 0) {
      sets = collect(encoder);
      ASSERT_EQ(sets.status, CodecOk);
      EXPECT_EQ(sets.flags, 0u);
      stream = sets.data;
    }
    const Output frame = collect(encoder);
    ASSERT_EQ(frame.status, CodecOk) << t;
    stream.insert(stream.end(), frame.data.begin(), frame.data.end());
    keyFrames.push_back((frame.flags & 1) != 0);
  }
  const support::H264Stream seen = support::decodeH264(stream);
  ASSERT_EQ(seen.pictures.size(), frames.size());
  EXPECT_EQ(seen.keyFrames, keyFrames);
  EXPECT_TRUE(keyFrames[0]);
  EXPECT_EQ(seen.pictures[0].width, support::round32(size.first));
  EXPECT_EQ(seen.pictures[0].height, support::round16(size.second));
  EXPECT_EQ(seen.profile, 100);
  EXPECT_GT(worstPsnr(seen, frames), 30);
  EXPECT_EQ(TesseraLayout::counts(encoder), (std::vector<int>{0, 0, 0, 0}));
}

std::string nameOf(const testing::TestParamInfo<Case>& tested) {
  const auto [size, format] = tested.param;
  return std::to_string(size.first) + "x" + std::to_string(size.second) +
         (format == yuyv ? "_yuyv" : "_i420");
}
const std::pair<int, int> sizes[] = {{16, 16}, {33, 17}, {100, 50}, {320, 240}};
INSTANTIATE_TEST_SUITE_P(Sizes, OmxH264,
                         testing::Combine(testing::ValuesIn(sizes), testing::Values(yuyv, i420)),
                         nameOf);

using OmxH264Encoder = OmxTest;

TEST_F(OmxH264Encoder, KeepsTheBitRate) {
  for (const unsigned int bitrate : {300000u, 1200000u}) {
    COmxH264Encoder encoder;
    ASSERT_TRUE(create(encoder, 640, 480, yuyv, bitrate, 25));
    std::size_t bytes = 0;
    constexpr int frames = 100;
    for (int t = 0; t < frames; ++t) {
      ASSERT_EQ(feed(encoder, support::scene(640, 480, t)), CodecOk);
      if (t == 0) bytes += collect(encoder).data.size();
      const Output out = collect(encoder);
      ASSERT_EQ(out.status, CodecOk);
      bytes += out.data.size();
    }
    const double measured = static_cast<double>(bytes) * 8 * 25 / frames;
    EXPECT_NEAR(measured / bitrate, 1, 0.1) << measured << " instead of " << bitrate;
  }
}

TEST_F(OmxH264Encoder, FramesLongerThanTheOutputBufferComeInPieces) {
  constexpr unsigned int whole = 64 * 48 * 3 / 2;  // what an output buffer holds
  COmxH264Encoder encoder;
  ASSERT_TRUE(create(encoder, 64, 48, yuyv, 200000000));
  Bytes stream;
  int pieces = 0;
  for (unsigned t = 0; t < 3; ++t) {
    ASSERT_EQ(feed(encoder, support::noise(64, 48, t)), CodecOk);
    if (t == 0) stream = collect(encoder).data;
    for (unsigned int size = whole; size == whole; ++pieces) {
      const Output out = collect(encoder);
      ASSERT_EQ(out.status, CodecOk);
      size = out.size;
      stream.insert(stream.end(), out.data.begin(), out.data.end());
    }
  }
  EXPECT_EQ(support::decodeH264(stream).pictures.size(), 3u);
  EXPECT_GT(pieces, 3);
}

TEST_F(OmxH264Encoder, BothOverloadsGiveTheSameBytes) {
  COmxH264Encoder one, other;
  ASSERT_TRUE(create(one, 160, 96));
  ASSERT_TRUE(create(other, 160, 96));
  for (int t = 0; t < 5; ++t) {
    ASSERT_EQ(feed(one, support::scene(160, 96, t)), CodecOk);
    ASSERT_EQ(feed(other, support::scene(160, 96, t)), CodecOk);
    for (int buffer = t == 0 ? 0 : 1; buffer < 2; ++buffer) {
      const Output expected = collect(one);
      unsigned char* array = nullptr;
      unsigned int size = 0, flags = 7;
      ASSERT_EQ(other.ProcessOutput(&array, size, flags), CodecOk);
      EXPECT_EQ(Bytes(array, array + size), expected.data);
      EXPECT_EQ(flags, expected.flags);
      delete[] array;
    }
  }
}

TEST_F(OmxH264Encoder, AllocatesNothingForTheCallersMemory) {
  COmxH264Encoder encoder;
  ASSERT_TRUE(create(encoder, 160, 96));
  Bytes raw = support::toYuyv(support::scene(160, 96)), data(1 << 20);
  unsigned int size = 0, flags = 0;
  const std::size_t before = support::interpose::allocationsOfLibrary();
  for (int t = 0; t < 10; ++t) {
    encoder.ProcessInput(raw.data(), static_cast<unsigned int>(raw.size()), 0, t);
    for (int buffer = t == 0 ? 0 : 1; buffer < 2; ++buffer)
      ASSERT_EQ(encoder.ProcessOutput(data.data(), 1 << 20, size, flags), CodecOk);
  }
  EXPECT_EQ(support::interpose::allocationsOfLibrary(), before);
}

// ------------------------------------------------------------------- settings and arguments

TEST_F(OmxH264Encoder, SetsItsPortsUp) {
  struct {
    int width, height;
    unsigned int rateNum, rateDen;
    const char* input;
  } const table[] = {{1280, 720, 30, 1, "1280x720 stride 1280 slice 720"},
                     {100, 50, 30000, 1001, "128x64 stride 128 slice 64"},
                     {-100, -50, 30, 1, "128x64 stride 128 slice 64"}};
  for (const auto& tested : table) {
    COmxH264Encoder encoder;
    tessera_platform::startJournal();
    EXPECT_TRUE(encoder.Create(yuyv, tested.width, tested.height, tested.rateNum, tested.rateDen, 1,
                               1, 1000000));
    tessera_platform::stopJournal();
    EXPECT_NE(journalText().find(std::string("PortDefinition 200: ") + tested.input),
              std::string::npos)
        << journalText();
  }
}

TEST_F(OmxH264Encoder, NegativeSizesCountByTheirMagnitude) {
  COmxH264Encoder plain, negative;
  ASSERT_TRUE(create(plain, 100, 50));
  ASSERT_TRUE(create(negative, -100, -50));
  for (COmxH264Encoder* encoder : {&plain, &negative})
    ASSERT_EQ(feed(*encoder, support::scene(100, 50)), CodecOk);
  collect(plain);
  collect(negative);
  EXPECT_EQ(collect(plain).data, collect(negative).data);
}

TEST_F(OmxH264Encoder, WrongArgumentsAndStatesAreTold) {
  COmxH264Encoder encoder;
  Bytes data(100);
  unsigned int size = 7, flags = 7;
  const std::string in = "COmxH264Encoder::ProcessInput - ";
  const std::string out = "COmxH264Encoder::ProcessOutput - ";
  struct {
    std::function<CodecStatus()> call;
    CodecStatus status;
    std::string line;  ///< without the addresses
  } const table[] = {{[&] { return encoder.ProcessInput(nullptr, 0, 0, 0); }, CodecInvalidArgument,
                      in + "invalid input arguments [(nil)][0]\n"},
                     {[&] { return encoder.ProcessInput(nullptr, 5, 0, 0); }, CodecInvalidArgument,
                      in + "invalid input arguments [(nil)][5]\n"},
                     {[&] { return encoder.ProcessInput(data.data(), 5, 0, 0); }, CodecInvalidState,
                      in + "invalid state [0x] [(nil)]\n"},
                     {[&] { return encoder.ProcessOutput(nullptr, size, flags); },
                      CodecInvalidArgument, out + "invalid input arguments [(nil)]\n"},
                     {[&] { return encoder.ProcessOutput(nullptr, 9, size, flags); },
                      CodecInvalidArgument, out + "invalid input arguments [(nil)] [9]\n"},
                     {[&] { return encoder.ProcessOutput(data.data(), 0, size, flags); },
                      CodecInvalidArgument, out + "invalid input arguments [0x] [0]\n"},
                     {[&] { return encoder.ProcessOutput(data.data(), 9, size, flags); },
                      CodecInvalidState, out + "invalid state [0x] [(nil)]\n"}};
  for (const auto& tested : table) {
    support::Capture capture;
    flags = 7;
    EXPECT_EQ(tested.call(), tested.status);
    std::string line = capture.err();
    for (std::size_t at = 0; (at = line.find("0x", at)) != std::string::npos; at += 2)
      line.erase(at + 2, line.find(']', at) - at - 2);
    EXPECT_EQ(line, tested.line);
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(flags, tested.line.compare(0, in.size(), in) == 0 ? 7u : 0u);
  }
  support::Capture capture;
  EXPECT_FALSE(create(encoder, 100, 50, 0x12345678));
  EXPECT_EQ(capture.err(),
            "COmxH264Encoder::SetInputFormat - input image format 0x12345678 is not supported.\n"
            "COmxH264Encoder::Create - SetInputFormat failed with 0x80001006\n");
  for (const int width : {0, INT_MIN, INT_MAX}) {
    COmxH264Encoder another;
    another.Create(yuyv, width, width, 30, 1, 1, 1, 1000000);
    feed(another, support::scene(16, 16));
  }
  EXPECT_TRUE(create(encoder, 100, 50)) << "the object stays usable";
}

TEST_F(OmxH264Encoder, ASmallBufferLosesThatOutputOnly) {
  COmxH264Encoder encoder;
  ASSERT_TRUE(create(encoder, 160, 96));
  ASSERT_EQ(feed(encoder, support::scene(160, 96, 0)), CodecOk);
  const Output sets = collect(encoder);
  const Output small = collect(encoder, 10);
  EXPECT_EQ(small.status, CodecBufferTooSmall);
  EXPECT_GT(small.size, 10u);
  EXPECT_EQ(small.flags, 0u);
  ASSERT_EQ(feed(encoder, support::scene(160, 96, 1)), CodecOk);
  const Output next = collect(encoder);
  EXPECT_EQ(next.status, CodecOk);
  EXPECT_EQ(next.flags, 0u);
}

TEST_F(OmxH264Encoder, AnotherCreateStartsAnotherStream) {
  COmxH264Encoder encoder;
  const support::Capture capture;
  for (const auto& [width, height] : {std::pair(160, 96), std::pair(64, 48), std::pair(64, 48)}) {
    ASSERT_TRUE(create(encoder, width, height));
    ASSERT_EQ(feed(encoder, support::scene(width, height)), CodecOk);
    Bytes stream = collect(encoder).data;
    const Output frame = collect(encoder);
    stream.insert(stream.end(), frame.data.begin(), frame.data.end());
    const support::H264Stream seen = support::decodeH264(stream);
    ASSERT_EQ(seen.pictures.size(), 1u);
    EXPECT_EQ(seen.pictures[0].width, width);
    // What is left in the encoder is lost, and does not get in the way.
    feed(encoder, support::scene(width, height, 1));
  }
}

TEST_F(OmxH264Encoder, ReleasesThroughTheInterface) {
  auto* const encoder = new COmxH264Encoder;
  ASSERT_TRUE(create(*encoder, 64, 48));
  feed(*encoder, support::scene(64, 48));
  const support::Capture capture;
  EXPECT_EQ(ReleaseEncoderH264(encoder), 1);
}

}  // namespace
