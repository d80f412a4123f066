// The device classes against whatever encoder and decoder this system has for the format that
// TESSERA_TEST_CODED names, H264 where it names none.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Scene.h"
#include "codec/kernel/Devices.h"
#include "codec/kernel/M2mDecoder.h"
#include "codec/kernel/M2mEncoder.h"
#include "codec/kernel/RawFrame.h"

namespace {

using namespace codec::kernel;
using scene::Bytes;
using scene::Size;

constexpr Size usual = {640, 480};

std::uint32_t coded() {
  const char* const name = std::getenv("TESSERA_TEST_CODED");
  std::uint32_t fourcc = 0;
  std::memcpy(&fourcc, name != nullptr ? name : "H264", sizeof fourcc);
  return fourcc;
}

std::string device(bool encode) {
  std::vector<std::string> reasons;
  const std::vector<Offer> offers =
      offersFor({encode, {coded()}, usual.width, usual.height}, reasons);
  return offers.empty() ? "" : offers[0].path;
}

struct Picture {
  Size size;
  Bytes bytes;
  codec::Planes planes() {
    return codec::planesOf(bytes.data(), codec::roundUp(size.width, 2),
                           codec::roundUp(size.height, 2));
  }
};

void expectFrame(Picture& seen, Size size, unsigned number) {
  ASSERT_EQ(seen.size, size);
  const codec::Planes p = seen.planes();
  EXPECT_LT(scene::difference({p.y, p.u, p.v, p.yStride, p.uvStride}, size, number), 3) << number;
}

struct Encoder {
  M2mEncoder m2m;
  Size size;
  unsigned frames = 0;
  bool good;

  explicit Encoder(Size frameSize = usual, std::size_t room = 1 << 20) : size(frameSize) {
    good = m2m.open(device(true), {coded(), 0, size.width, size.height, room, false, 30, 1}) &&
           m2m.start();
  }
  bool submit() {
    const Bytes frame = scene::frame(size, frames++);
    Buffer* const buffer = m2m.inputBuffer();
    return buffer != nullptr &&
           writeFrame(m2m.inputFormat(), codec::planesOf(frame.data(), size.width, size.height),
                      size.width, size.height, *buffer) &&
           m2m.submit(*buffer);
  }
  /// The data of one frame; empty where the device made none.
  Bytes encode() {
    if (!submit() || m2m.collect() != M2mEncoder::Outcome::Data) return {};
    return Bytes(m2m.data().data[0], m2m.data().data[0] + m2m.data().used[0]);
  }
};

struct Decoder {
  std::vector<Picture> pictures;
  std::vector<std::uint64_t> serials;
  M2mDecoder m2m;
  bool good;

  explicit Decoder(std::size_t room = 1 << 20)
      : m2m([this](const M2mDecoder::Frame& frame) {
          const Size size = {frame.visible.width, frame.visible.height};
          pictures.push_back({size, Bytes((size.width + 1) * (size.height + 1) * 3 / 2)});
          serials.push_back(frame.buffer.serial);
          EXPECT_TRUE(
              readFrame(frame.format, frame.visible, frame.buffer, pictures.back().planes()));
        }) {
    good = m2m.open(device(false), {coded(), room, 0, 0});
  }
};

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
    EXPECT_EQ(decoder.serials[before + i], 1000 + first + i);
    ASSERT_NO_FATAL_FAILURE(expectFrame(decoder.pictures[before + i], encoder.size, first + i));
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
  EXPECT_EQ(none.error().find("/dev/null: "), 0u) << none.error();
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

TEST(M2m, SizesThatNoBlockFitsAndUnitsLargerThanABuffer) {
  const struct {
    Size size;
    std::size_t unit, buffer;
  } rows[] = {{{1366, 768}, 4 << 20, 4 << 20},
              {{642, 482}, 4 << 20, 4 << 20},
              {{1920, 1080}, 4 << 20, 4 << 20},
              {usual, 1 << 20, 1}};
  for (const auto& row : rows) {
    Encoder encoder(row.size, row.unit);
    Decoder decoder(row.buffer);
    ASSERT_TRUE(encoder.good) << encoder.m2m.error();
    roundTrip(encoder, decoder, 3);
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
  Encoder large({1280, 720}), small;
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
  for (unsigned i = 0; i < 9; ++i) {
    EXPECT_EQ(decoder.serials[i], i + 1);
    expectFrame(decoder.pictures[i], i / 3 == 1 ? large.size : usual, i < 6 ? i % 3 : i - 3);
  }
}

TEST(M2m, ManyClientsAtOnce) {
  Encoder one, other({1280, 720});
  Decoder first, second;
  for (int i = 0; i < 2; ++i) {
    roundTrip(one, first, 1);
    roundTrip(other, second, 1);
    ASSERT_TRUE(first.m2m.reset() && second.m2m.reset());
    ASSERT_TRUE(one.m2m.restart() && other.m2m.restart());
  }
}

TEST(M2m, ClosedInMidStreamItLeavesNothing) {
  const std::size_t before = scene::openDescriptors(), mapped = support::mappedBuffers();
  for (int i = 0; i < 5; ++i) {
    Encoder encoder;
    Decoder decoder;
    const Bytes unit = encoder.encode();
    ASSERT_FALSE(unit.empty());
    decoder.m2m.send(unit.data(), unit.size(), 1, true);
    EXPECT_GT(support::mappedBuffers(), mapped);
    EXPECT_TRUE(encoder.submit());
  }
  EXPECT_EQ(scene::openDescriptors(), before);
  EXPECT_EQ(support::mappedBuffers(), mapped);
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
