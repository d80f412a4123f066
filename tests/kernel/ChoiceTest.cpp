// The four coders on devices that misbehave, as the components get them.
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>

#include "codec/Choice.h"
#include "codec/cpu/H264Decoder.h"
#include "codec/cpu/H264Encoder.h"
#include "codec/cpu/JpegDecoder.h"
#include "codec/cpu/JpegEncoder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr unsigned width = 322, height = 242;
constexpr int frames = 12;
constexpr auto longest = std::chrono::seconds(30);  // that any call may take

enum class End { Works, Fails, Cpu };  ///< Cpu: fails where only the kernel will do

struct Row {
  const char* faults;
  End end;
  int fewest;  ///< frames that come out of an encoder
};

const Row rows[] = {
    {"", End::Works, frames},
    {"drop=3", End::Works, 8},
    {"delay=20", End::Works, frames},
    {"lag", End::Works, frames - 1},
    {"stride=256", End::Works, frames},
    {"align=16", End::Works, frames},
    {"nv12", End::Works, frames},
    {"mplane", End::Works, frames},
    {"mplane,nv12,stride=128,align=16", End::Works, frames},
    {"plain", End::Works, frames},
    {"busy", End::Cpu, frames},
    {"forbidden", End::Cpu, frames},
    {"silent=5", End::Fails, 0},
    {"gone=5", End::Fails, 0},
};

Bytes block(int t) {
  Bytes bytes(width * height * 3 / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<std::uint8_t>(60 + (i % width + i / width) / 5 +
                                         static_cast<std::size_t>(t) * 6);
  return bytes;
}

double difference(const codec::ConstPlanes& seen, int t) {
  const Bytes truth = block(t);
  double sum = 0;
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x)
      sum += std::abs(seen.y[y * seen.yStride + x] - truth[y * width + x]);
  const codec::ConstPlanes chroma = codec::planesOf(truth.data(), width, height);
  for (unsigned y = 0; y < height / 2; ++y)
    for (unsigned x = 0; x < width / 2; ++x)
      sum += std::abs(seen.u[y * seen.uvStride + x] - chroma.u[y * width / 2 + x]) +
             std::abs(seen.v[y * seen.uvStride + x] - chroma.v[y * width / 2 + x]);
  return sum / static_cast<double>(truth.size());
}

codec::VideoEncoder::Config config() {
  codec::VideoEncoder::Config config;
  config.width = width;
  config.height = height;
  config.bitrate = 4000000;
  return config;
}

std::size_t held() {
  std::size_t count = 0;
  DIR* const folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) count += line.find("stand-in") != line.npos;
  return count;
}

class OnDevices : public testing::TestWithParam<std::tuple<Row, const char*>> {
 protected:
  OnDevices() : row_(std::get<Row>(GetParam())), auto_(std::string("auto") == codecs()) {
    setenv("TESSERA_CODECS", codecs(), 1);
    setenv("TESSERA_STANDIN", row_.faults, 1);
    before_ = held();
    began_ = Clock::now();
  }
  ~OnDevices() override {
    EXPECT_LT(Clock::now() - began_, longest);
    EXPECT_EQ(held(), before_);
    unsetenv("TESSERA_STANDIN");
  }
  const char* codecs() const { return std::get<const char*>(GetParam()); }
  bool opens() const { return row_.end != End::Cpu || auto_; }
  bool goesOn() const { return opens() && row_.end != End::Fails; }

  Row row_;
  bool auto_;
  std::size_t before_ = 0;
  Clock::time_point began_;
};

TEST_P(OnDevices, VideoIsEncoded) {
  const auto encoder = codec::makeVideoEncoder();
  ASSERT_EQ(encoder->open(config()), opens()) << encoder->error();
  if (!opens()) {
    EXPECT_NE(encoder->error().find("/dev/video50: open: "), std::string::npos);
    return;
  }
  codec::H264Decoder decoder;
  decoder.open(encoder->parameterSets().data(), encoder->parameterSets().size());
  std::vector<int> came;
  bool good = true;
  for (int t = 0; t < frames && good; ++t) {
    const Bytes frame = block(t);
    good = encoder->encode(codec::planesOf(frame.data(), width, height), t, t == 7);
    if (!good || encoder->size() == 0) continue;
    came.push_back(static_cast<int>(encoder->pts()));
    const bool due = came.back() == 7 || (came.back() == 8 && came[came.size() - 2] != 7);
    EXPECT_EQ(encoder->isKeyFrame(), came.size() == 1 || due) << t;
    decoder.feed(encoder->data(), encoder->size(), encoder->pts(), false, true);
  }
  EXPECT_EQ(good, goesOn()) << encoder->error();
  EXPECT_GE(static_cast<int>(came.size()), row_.fewest);
  decoder.flush();
  codec::VideoDecoder::Picture picture;
  std::size_t shown = 0;
  for (; decoder.next(picture); ++shown) {
    ASSERT_LT(shown, came.size());
    EXPECT_EQ(picture.pts, came[shown]);
    ASSERT_EQ(picture.width, width);
    ASSERT_EQ(picture.height, height);
    EXPECT_LT(difference(picture.planes, static_cast<int>(picture.pts)), 4) << picture.pts;
  }
  EXPECT_EQ(shown, came.size());
  if (good) return;
  setenv("TESSERA_STANDIN", "", 1);
  EXPECT_TRUE(encoder->open(config())) << encoder->error();
}

TEST_P(OnDevices, VideoIsDecoded) {
  codec::H264Encoder encoder;
  encoder.open(config());
  const auto decoder = codec::makeVideoDecoder();
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(decoder->open(nullptr, 0));
    int shown = 0;
    const auto show = [&] {
      codec::VideoDecoder::Picture picture;
      for (; decoder->next(picture); ++shown) {
        EXPECT_EQ(picture.pts, shown);
        ASSERT_EQ(picture.width, width);
        EXPECT_LT(difference(picture.planes, shown), 4) << shown;
      }
    };
    for (int t = 0; t < frames; ++t) {
      const Bytes frame = block(t);
      encoder.encode(codec::planesOf(frame.data(), width, height), t, t == 0);
      Bytes unit = t == 0 ? encoder.parameterSets() : Bytes();
      unit.insert(unit.end(), encoder.data(), encoder.data() + encoder.size());
      decoder->feed(unit.data(), unit.size(), t, false, true);
      show();
    }
    decoder->flush();
    show();
    EXPECT_EQ(decoder->failed(), !goesOn()) << decoder->error();
    if (goesOn()) {
      EXPECT_EQ(shown, frames);
      return;
    }
    // Without the fault the next stream is as good as any.
    row_.end = End::Works;
    setenv("TESSERA_STANDIN", "", 1);
  }
}

TEST_P(OnDevices, PicturesAreEncodedAndDecoded) {
  const auto encoder = codec::makeImageEncoder();
  const auto decoder = codec::makeImageDecoder();
  codec::JpegDecoder cpu;
  const bool certain = auto_ || (row_.end == End::Works && row_.fewest >= frames - 1);
  for (int t = 0; t < 7; ++t) {
    Bytes grey(width * height * 3);
    for (std::size_t i = 0; i < grey.size(); ++i)
      grey[i] = static_cast<std::uint8_t>(40 + i / 3 % width / 4 + static_cast<std::size_t>(t) * 9);
    const bool good = encoder->encode(
        {grey.data(), grey.size(), codec::PixelFormat::Rgb24, width * 3, width, height}, 90);
    EXPECT_TRUE(good || !certain) << encoder->error();
    if (!good) continue;
    const Bytes jpeg(encoder->data(), encoder->data() + encoder->size());
    ASSERT_TRUE(decoder->open(jpeg.data(), jpeg.size()) && cpu.open(jpeg.data(), jpeg.size()));
    ASSERT_EQ(decoder->width(), width);
    ASSERT_EQ(decoder->height(), height);
    Bytes seen(352 * 256 * 3 / 2), truth = seen;
    const bool shown = decoder->decode(codec::planesOf(seen.data(), 352, 256)) ==
                       codec::ImageDecoder::Result::Complete;
    EXPECT_TRUE(shown || !certain) << decoder->error();
    cpu.decode(codec::planesOf(truth.data(), 352, 256));
    for (unsigned y = 0; shown && y < height; y += 60)
      for (unsigned x = 0; x < width; x += 7) {
        ASSERT_EQ(seen[y * 352 + x], truth[y * 352 + x]);
        ASSERT_NEAR(seen[y * 352 + x], grey[(y * width + x) * 3], 5);
      }
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, OnDevices,
                         testing::Combine(testing::ValuesIn(rows),
                                          testing::Values("kernel", "auto")),
                         [](const auto& test) {
                           std::string name = std::get<Row>(test.param).faults;
                           name = std::string(std::get<const char*>(test.param)) + "_" + name;
                           for (char& letter : name)
                             if (!std::isalnum(static_cast<unsigned char>(letter))) letter = '_';
                           return name;
                         });

}  // namespace
