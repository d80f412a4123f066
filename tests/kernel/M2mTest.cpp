// The device classes against whatever encoder and decoder this system has for the format that
// TESSERA_TEST_CODED names, H264 where it names none.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "codec/kernel/Devices.h"
#include "codec/kernel/M2mDecoder.h"
#include "codec/kernel/M2mEncoder.h"
#include "codec/kernel/RawFrame.h"

namespace {

using namespace codec::kernel;
using Bytes = std::vector<std::uint8_t>;

constexpr unsigned width = 640, height = 480;

std::uint32_t coded() {
  const char* const name = std::getenv("TESSERA_TEST_CODED");
  std::uint32_t fourcc = 0;
  std::memcpy(&fourcc, name != nullptr ? name : "H264", sizeof fourcc);
  return fourcc;
}

std::string device(bool encode) {
  std::vector<std::string> reasons;
  const std::vector<Offer> offers = offersFor({encode, {coded()}, width, height}, reasons);
  return offers.empty() ? "" : offers[0].path;
}

struct Picture {
  unsigned width, height;
  Bytes bytes;

  Picture(unsigned w, unsigned h, unsigned number = 0) : width(w), height(h) {
    bytes.resize(std::size_t{stride()} * h + 2 * std::size_t{stride() / 2} * ((h + 1) / 2));
    for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] =
          static_cast<std::uint8_t>(64 + (i % stride() + i / stride()) / 8 + number * 8 % 96);
  }
  unsigned stride() const { return width + width % 2; }
  codec::Planes planes() {
    const std::size_t luma = std::size_t{stride()} * height;
    const std::size_t chroma = std::size_t{stride() / 2} * ((height + 1) / 2);
    return {&bytes[0], &bytes[luma], &bytes[luma + chroma], stride(), stride() / 2};
  }
  codec::ConstPlanes constPlanes() {
    const codec::Planes p = planes();
    return {p.y, p.u, p.v, p.yStride, p.uvStride};
  }
};

double difference(const Picture& a, const Picture& b) {
  if (a.bytes.size() != b.bytes.size()) return 255;
  double sum = 0;
  for (std::size_t i = 0; i < a.bytes.size(); ++i) sum += std::abs(a.bytes[i] - b.bytes[i]);
  return sum / static_cast<double>(a.bytes.size());
}

struct Encoder {
  M2mEncoder m2m;
  unsigned width, height;
  unsigned frames = 0;

  explicit Encoder(unsigned w = ::width, unsigned h = ::height, std::size_t room = 1 << 20)
      : width(w), height(h) {
    M2mEncoder::Setup setup;
    setup.coded = coded();
    setup.width = w;
    setup.height = h;
    setup.codedSize = room;
    setup.rateNum = 30;
    good = m2m.open(device(true), setup) && m2m.start();
  }
  /// The data of one frame; empty where the device made none.
  Bytes encode() {
    Picture picture(width, height, frames++);
    Buffer* const buffer = m2m.inputBuffer();
    if (buffer == nullptr ||
        !writeFrame(m2m.inputFormat(), picture.constPlanes(), width, height, *buffer) ||
        !m2m.submit(*buffer))
      return {};
    return take(m2m.collect());
  }
  Bytes take(M2mEncoder::Outcome outcome) {
    if (outcome != M2mEncoder::Outcome::Data) return {};
    return Bytes(m2m.data().data[0], m2m.data().data[0] + m2m.data().used[0]);
  }
  bool good;
};

struct Decoder {
  std::vector<Picture> pictures;
  std::vector<std::uint64_t> serials;
  M2mDecoder m2m;

  explicit Decoder(std::size_t room = 1 << 20)
      : m2m([this](const M2mDecoder::Frame& frame) {
          pictures.emplace_back(frame.visible.width, frame.visible.height);
          serials.push_back(frame.buffer.serial);
          EXPECT_TRUE(
              readFrame(frame.format, frame.visible, frame.buffer, pictures.back().planes()));
        }) {
    good = m2m.open(device(false), {coded(), room, 0, 0});
  }
  bool good;
};

std::size_t linesOf(const char* file) {
  std::ifstream in(file);
  std::size_t count = 0;
  for (std::string line; std::getline(in, line);)
    count += line.find("/video") != line.npos || line.find("memfd") != line.npos;
  return count;
}

std::size_t descriptors() {
  std::size_t count = 0;
  DIR* const folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

/// Encodes frames and decodes what came of them; every picture must be the one that went in.
void roundTrip(Encoder& encoder, Decoder& decoder, unsigned count) {
  const std::size_t before = decoder.pictures.size();
  const unsigned first = encoder.frames;
  for (unsigned i = 0; i < count; ++i) {
    const Bytes unit = encoder.encode();
    ASSERT_FALSE(unit.empty()) << i << ": " << encoder.m2m.error();
    ASSERT_TRUE(decoder.m2m.send(unit.data(), unit.size(), 1000 + first + i, true))
        << decoder.m2m.error();
  }
  ASSERT_TRUE(decoder.m2m.drain()) << decoder.m2m.error();
  ASSERT_EQ(decoder.pictures.size(), before + count);
  for (unsigned i = 0; i < count; ++i) {
    const Picture& seen = decoder.pictures[before + i];
    EXPECT_EQ(decoder.serials[before + i], 1000 + first + i);
    ASSERT_LT(difference(seen, Picture(encoder.width, encoder.height, first + i)), 3) << i;
  }
}

TEST(M2m, FindsDevicesByWhatTheyCanDo) {
  EXPECT_NE(device(true), "");
  EXPECT_NE(device(false), "");
  EXPECT_NE(device(true), device(false));
  std::vector<std::string> reasons;
  EXPECT_TRUE(offersFor({true, {coded()}, 100000, 100000}, reasons).empty());
  EXPECT_TRUE(offersFor({true, {0x31313131}, 0, 0}, reasons).empty());
  EXPECT_EQ(reasons.size(), 2 * nodes().size());
  M2mDevice none;
  EXPECT_FALSE(none.open("/dev/null"));
  EXPECT_EQ(none.error(), "/dev/null: no memory-to-memory device");
}

TEST(M2m, ManyFrames) {
  Encoder encoder;
  Decoder decoder;
  ASSERT_TRUE(encoder.good && decoder.good) << encoder.m2m.error() << decoder.m2m.error();
  constexpr unsigned portion = 50;
  const char* const frames = std::getenv("TESSERA_TEST_FRAMES");
  for (int left = frames != nullptr ? std::atoi(frames) : 100; left > 0; left -= portion) {
    ASSERT_NO_FATAL_FAILURE(roundTrip(encoder, decoder, portion));
    decoder.pictures.clear();
    decoder.serials.clear();
    ASSERT_TRUE(decoder.m2m.reset() && encoder.m2m.restart());
  }
}

TEST(M2m, SizesThatNoBlockFits) {
  for (const auto& size :
       {std::pair(1366u, 768u), std::pair(642u, 482u), std::pair(1920u, 1080u)}) {
    Encoder encoder(size.first, size.second, 4 << 20);
    Decoder decoder(4 << 20);
    ASSERT_TRUE(encoder.good) << encoder.m2m.error();
    roundTrip(encoder, decoder, 2);
  }
}

TEST(M2m, GoesOnAfterADrain) {
  Encoder encoder;
  Decoder decoder;
  ASSERT_NO_FATAL_FAILURE(roundTrip(encoder, decoder, 2));
  EXPECT_EQ(encoder.m2m.drain(), M2mEncoder::Outcome::Dropped) << encoder.m2m.error();
  ASSERT_TRUE(encoder.m2m.restart() && decoder.m2m.reset());
  EXPECT_TRUE(decoder.m2m.drain());
  ASSERT_TRUE(decoder.m2m.reset());
  roundTrip(encoder, decoder, 3);
}

TEST(M2m, FollowsAChangeOfSize) {
  Encoder large(1280, 720), small(640, 480);
  Decoder decoder;
  std::uint64_t serial = 0;
  for (Encoder* const encoder : {&small, &large, &small}) {
    encoder->m2m.restart();
    for (int i = 0; i < 3; ++i) {
      const Bytes unit = encoder->encode();
      ASSERT_TRUE(decoder.m2m.send(unit.data(), unit.size(), ++serial, true));
    }
  }
  ASSERT_TRUE(decoder.m2m.drain()) << decoder.m2m.error();
  ASSERT_EQ(decoder.pictures.size(), 9u);
  const unsigned widths[] = {640, 1280, 640};
  for (unsigned i = 0; i < 9; ++i) {
    EXPECT_EQ(decoder.serials[i], i + 1);
    EXPECT_EQ(decoder.pictures[i].width, widths[i / 3]);
    const unsigned number = i < 6 ? i % 3 : i - 3;
    const unsigned rows = widths[i / 3] == 640 ? 480 : 720;
    EXPECT_LT(difference(decoder.pictures[i], Picture(widths[i / 3], rows, number)), 3) << i;
  }
}

TEST(M2m, UnitsLargerThanABuffer) {
  Encoder encoder;
  Decoder decoder(1);
  roundTrip(encoder, decoder, 3);
}

TEST(M2m, ManyClientsAtOnce) {
  Encoder one, other(1280, 720);
  Decoder first, second;
  for (int i = 0; i < 2; ++i) {
    roundTrip(one, first, 1);
    roundTrip(other, second, 1);
    ASSERT_TRUE(first.m2m.reset() && second.m2m.reset());
    ASSERT_TRUE(one.m2m.restart() && other.m2m.restart());
  }
}

TEST(M2m, ClosedInMidStreamItLeavesNothing) {
  const std::size_t before = descriptors(), mapped = linesOf("/proc/self/maps");
  for (int i = 0; i < 5; ++i) {
    Encoder encoder;
    Decoder decoder;
    const Bytes unit = encoder.encode();
    ASSERT_FALSE(unit.empty());
    decoder.m2m.send(unit.data(), unit.size(), 1, true);
    EXPECT_GT(linesOf("/proc/self/maps"), mapped);
    Picture picture(width, height);
    Buffer* const buffer = encoder.m2m.inputBuffer();
    writeFrame(encoder.m2m.inputFormat(), picture.constPlanes(), width, height, *buffer);
    EXPECT_TRUE(encoder.m2m.submit(*buffer));
  }
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(linesOf("/proc/self/maps"), mapped);
}

TEST(M2m, SignalsDisturbNothing) {
  struct sigaction action = {}, old = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &old);
  const itimerval storm = {{0, 500}, {0, 500}}, calm = {};
  setitimer(ITIMER_REAL, &storm, nullptr);
  {
    Encoder encoder;
    Decoder decoder;
    roundTrip(encoder, decoder, 10);
  }
  setitimer(ITIMER_REAL, &calm, nullptr);
  sigaction(SIGALRM, &old, nullptr);
}

}  // namespace
