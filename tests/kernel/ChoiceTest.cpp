// The four coders on devices that misbehave, as the components get them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Scene.h"
#include "codec/Choice.h"
#include "codec/Report.h"
#include "codec/cpu/H264Decoder.h"
#include "codec/cpu/H264Encoder.h"
#include "codec/cpu/JpegDecoder.h"

namespace {

using scene::Bytes;
using scene::Size;

/// Milliseconds of the devices' clock that the work on a coder may take.
constexpr unsigned long long longest = 30000;

/// Of the stand-in devices, which are in front of this program.
const auto now = reinterpret_cast<unsigned long long (*)()>(dlsym(RTLD_DEFAULT, "standin_now"));

constexpr Size large = {322, 242};

codec::VideoEncoder::Config config(Size size) {
  codec::VideoEncoder::Config config;
  config.width = size.width;
  config.height = size.height;
  config.bitrate = 4000000;
  return config;
}

std::size_t held() {
  return scene::openDescriptors() + support::mappedBuffers();
}

/// What came of the work on a coder. Pictures that are not the right ones fail the test.
struct Outcome {
  bool opened = true;
  bool good = true;
  int pictures = 0;
  std::string error;
};

/// Takes every picture that a decoder has, which must be the one with its number.
void show(codec::VideoDecoder& decoder, Size size, std::vector<int>& shown) {
  codec::VideoDecoder::Picture picture;
  while (decoder.next(picture)) {
    const int number = static_cast<int>(picture.pts);
    EXPECT_TRUE(shown.empty() || number > shown.back()) << number;
    shown.push_back(number);
    ASSERT_EQ((Size{picture.width, picture.height}), size);
    EXPECT_LT(scene::difference(picture.planes, size, static_cast<unsigned>(picture.pts)), 4);
  }
}

/// Asks for a key frame in the middle, which comes there or, if that frame is dropped, right after.
Outcome encodeVideo(codec::VideoEncoder& encoder, Size size, int frames) {
  Outcome outcome;
  outcome.opened = outcome.good = encoder.open(config(size));
  const Bytes parameterSets = encoder.parameterSets();
  std::vector<Bytes> units;
  std::vector<int> came, shown;
  const int asked = frames * 7 / 12;
  for (int t = 0; t < frames && outcome.good; ++t) {
    const Bytes frame = scene::frame(size, static_cast<unsigned>(t));
    outcome.good =
        encoder.encode(codec::planesOf(frame.data(), size.width, size.height), t, t == asked);
    if (!outcome.good || encoder.size() == 0) continue;
    came.push_back(static_cast<int>(encoder.pts()));
    const bool due = came.back() >= asked && (came.size() < 2 || came[came.size() - 2] < asked);
    EXPECT_EQ(encoder.isKeyFrame(), came.size() == 1 || due) << t;
    units.emplace_back(encoder.data(), encoder.data() + encoder.size());
  }
  outcome.error = encoder.error();
  codec::H264Decoder decoder;
  decoder.open(parameterSets.data(), parameterSets.size());
  for (std::size_t i = 0; i < units.size(); ++i)
    decoder.feed(units[i].data(), units[i].size(), came[i], false, true);
  decoder.flush();
  show(decoder, size, shown);
  EXPECT_EQ(shown, came);
  outcome.pictures = static_cast<int>(shown.size());
  return outcome;
}

std::vector<Bytes> unitsOf(Size size, int frames) {
  codec::H264Encoder encoder;
  encoder.open(config(size));
  std::vector<Bytes> units;
  for (int t = 0; t < frames; ++t) {
    const Bytes frame = scene::frame(size, static_cast<unsigned>(t));
    encoder.encode(codec::planesOf(frame.data(), size.width, size.height), t, false);
    units.push_back(t == 0 ? encoder.parameterSets() : Bytes());
    units.back().insert(units.back().end(), encoder.data(), encoder.data() + encoder.size());
  }
  return units;
}

Outcome decodeVideo(codec::VideoDecoder& decoder, Size size, const std::vector<Bytes>& units) {
  Outcome outcome;
  outcome.opened = decoder.open(nullptr, 0);
  std::vector<int> shown;
  for (std::size_t t = 0; t < units.size(); ++t) {
    decoder.feed(units[t].data(), units[t].size(), static_cast<std::int64_t>(t), false, true);
    show(decoder, size, shown);
  }
  decoder.flush();
  show(decoder, size, shown);
  outcome.good = !decoder.failed();
  outcome.pictures = static_cast<int>(shown.size());
  outcome.error = decoder.error();
  return outcome;
}

Outcome codePictures(codec::ImageEncoder& encoder, codec::ImageDecoder& decoder, Size size,
                     int count) {
  Outcome outcome;
  const auto fail = [&outcome](const std::string& error) {
    outcome.good = false;
    outcome.error = error;
  };
  const unsigned stride = codec::roundUp(size.width, 32), rows = codec::roundUp(size.height, 16);
  for (int t = 0; t < count; ++t) {
    Bytes grey(size.width * size.height * 3);
    for (std::size_t i = 0; i < grey.size(); ++i)
      grey[i] =
          static_cast<std::uint8_t>(40 + i / 3 % size.width / 4 + static_cast<std::size_t>(t) * 9);
    if (!encoder.encode({grey.data(), grey.size(), codec::PixelFormat::Rgb24, size.width * 3,
                         size.width, size.height},
                        90)) {
      fail(encoder.error() + (encoder.lacksMemory() ? "no memory" : ""));
      continue;
    }
    const Bytes jpeg(encoder.data(), encoder.data() + encoder.size());
    Bytes seen(stride * rows * 3 / 2), truth = seen;
    const bool read = decoder.open(jpeg.data(), jpeg.size());
    if (!read || decoder.decode(codec::planesOf(seen.data(), stride, rows)) !=
                     codec::ImageDecoder::Result::Complete) {
      fail(decoder.error());
      continue;
    }
    ++outcome.pictures;
    codec::JpegDecoder cpu;
    EXPECT_TRUE(cpu.open(jpeg.data(), jpeg.size()));
    cpu.decode(codec::planesOf(truth.data(), stride, rows));
    for (unsigned y = 0; y < size.height; y += 12)
      for (unsigned x = 0; x < size.width; x += 7) {
        EXPECT_EQ(seen[y * stride + x], truth[y * stride + x]);
        EXPECT_NEAR(seen[y * stride + x], grey[(y * size.width + x) * 3], 5);
      }
  }
  return outcome;
}

enum class End { Works, Fails, Cpu };  ///< Cpu: fails where only the kernel will do
constexpr int frames = 12;

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
    {"stubborn", End::Works, frames},
    {"busy", End::Cpu, frames},
    {"forbidden", End::Cpu, frames},
    {"silent=5", End::Fails, 0},
    {"gone=5", End::Fails, 0},
};

class OnDevices : public testing::TestWithParam<std::tuple<Row, const char*>> {
 protected:
  OnDevices() : row_(std::get<Row>(GetParam())), auto_(std::string("auto") == codecs()) {
    setenv("TESSERA_CODECS", codecs(), 1);
    setenv("TESSERA_STANDIN", row_.faults, 1);
  }
  ~OnDevices() override {
    EXPECT_LT(now() - began_, longest);
    EXPECT_EQ(held(), before_);
    unsetenv("TESSERA_STANDIN");
  }
  const char* codecs() const { return std::get<const char*>(GetParam()); }
  bool opens() const { return row_.end != End::Cpu || auto_; }
  bool goesOn() const { return opens() && row_.end != End::Fails; }

  Row row_;
  bool auto_;
  const std::size_t before_ = held();
  const unsigned long long began_ = now();
};

TEST_P(OnDevices, VideoIsEncoded) {
  const auto encoder = codec::makeVideoEncoder();
  const Outcome outcome = encodeVideo(*encoder, large, frames);
  ASSERT_EQ(outcome.opened, opens()) << outcome.error;
  EXPECT_EQ(outcome.good, goesOn()) << outcome.error;
  EXPECT_GE(outcome.pictures, goesOn() ? row_.fewest : 0);
  EXPECT_EQ(outcome.error.find("/dev/video50: open: ") == std::string::npos, opens());
  setenv("TESSERA_STANDIN", "", 1);
  EXPECT_EQ(encodeVideo(*encoder, large, 1).pictures, 1);
}

TEST_P(OnDevices, VideoIsDecoded) {
  const std::vector<Bytes> units = unitsOf(large, frames);
  const auto decoder = codec::makeVideoDecoder();
  const Outcome outcome = decodeVideo(*decoder, large, units);
  EXPECT_EQ(outcome.good, goesOn()) << outcome.error;
  EXPECT_TRUE(!goesOn() || outcome.pictures == frames) << outcome.pictures;
  // Without the fault the next stream is as good as any.
  setenv("TESSERA_STANDIN", "", 1);
  EXPECT_EQ(decodeVideo(*decoder, large, units).pictures, frames);
}

TEST_P(OnDevices, PicturesAreEncodedAndDecoded) {
  const auto encoder = codec::makeImageEncoder();
  const auto decoder = codec::makeImageDecoder();
  const Outcome outcome = codePictures(*encoder, *decoder, large, 7);
  const bool certain = auto_ || (row_.end == End::Works && row_.fewest >= frames - 1);
  EXPECT_TRUE(outcome.good || !certain) << outcome.error;
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

TEST(Quality, IsLostOnADeviceOnlyWhereNothingElseWillDo) {
  const Bytes grey = scene::frame(large, 0);
  for (const char* const faults : {"plain", "stubborn"})
    for (const bool kernel : {false, true}) {
      setenv("TESSERA_STANDIN", faults, 1);
      setenv("TESSERA_CODECS", kernel ? "kernel" : "auto", 1);
      const auto encoder = codec::makeImageEncoder();
      std::size_t sizes[2];
      for (const bool fine : {false, true}) {
        ASSERT_TRUE(encoder->encode(
            {grey.data(), grey.size(), codec::PixelFormat::Yuyv, 64, 32, 32}, fine ? 95 : 20));
        sizes[fine] = encoder->size();
      }
      EXPECT_EQ(sizes[0] == sizes[1], kernel) << faults;
    }
  unsetenv("TESSERA_STANDIN");
}

TEST(Report, TellsWhichSettingsADeviceDoesNotTake) {
  const std::pair<const char*, const char*> expected[] = {
      {"", "\"not_taken\":[]"},
      {"plain", "\"quality (not there)\""},
      {"stubborn", "\"quality (refused)\""},
      {"plain", "\"bit rate (not there)\",\"intra period (not there)\""},
      {"stubborn", "\"bit rate (refused)\",\"intra period (refused)\""}};
  for (const auto& [faults, told] : expected) {
    setenv("TESSERA_STANDIN", faults, 1);
    const std::string report = codec::codecReport();
    EXPECT_NE(report.find(told), report.npos) << report;
  }
  unsetenv("TESSERA_STANDIN");
}

}  // namespace
