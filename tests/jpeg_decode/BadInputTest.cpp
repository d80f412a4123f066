#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "PoolFixture.h"
#include "support/JpegSurgery.h"
#include "support/VirtualTime.h"

namespace {

using support::Bytes;
using support::Sampling;

/// A pool that gets bad pictures, each of them after a white one and after a black one: what comes
/// out may not depend on it. After each, a good one decodes.
class BadInput : public testing::Test {
 protected:
  /// @return the picture's bytes, or the line that came with null; without a size there is none
  std::string take(const Bytes& jpeg, int width = 0, int height = 0) {
    const Decoded seen = decode(*pool_, jpeg, width, height);
    if (seen.data == nullptr) {
      const bool silent = seen.width == 0 && seen.height == 0;
      EXPECT_EQ(std::count(seen.lines.begin(), seen.lines.end(), '\n'), silent ? 0 : 1)
          << seen.lines;
      return seen.lines;
    }
    EXPECT_EQ(seen.lines, "");
    const support::Yuv picture = support::unpadded(seen.data, seen.width, seen.height);
    std::string bytes(picture.y.begin(), picture.y.end());
    bytes.append(picture.u.begin(), picture.u.end()).append(picture.v.begin(), picture.v.end());
    return bytes;
  }

  /// @return whether a picture came out
  bool tryOut(const Bytes& jpeg, int width = 0, int height = 0) {
    EXPECT_EQ(difference(decode(*pool_, white_), white_), "");
    const std::string first = take(jpeg, width, height);
    EXPECT_EQ(difference(decode(*pool_, black_), black_), "");
    EXPECT_TRUE(take(jpeg, width, height) == first) << "it depends on the picture before";
    return !first.empty() && first.find("DecoderPool::DecodeJpeg") != 0;
  }

  const support::Image scene_ = support::scene(48, 32);
  const Bytes small_ = support::encodeJpeg(scene_, Sampling::Yuv420, 60);

 private:
  const support::VirtualTime time_;
  QuietPool pool_;
  const Bytes white_ =
      support::encodeJpeg(support::flat(48, 32, 255, 255, 255), Sampling::Yuv420, 80);
  const Bytes black_ = support::encodeJpeg(support::flat(48, 32, 0, 0, 0), Sampling::Yuv420, 80);
};

TEST_F(BadInput, EachKindGetsItsAnswer) {
  std::mt19937 random(7);
  Bytes rubbish(5000);
  std::generate(rubbish.begin(), rubbish.end(), [&] { return random(); });
  const Bytes tail(rubbish.begin(), rubbish.begin() + 500);
  const std::size_t frame = surgery::segments(small_, 0xC0).at(0);
  const std::size_t scan = surgery::segments(small_, 0xDA).at(0);
  const Bytes progressive = support::encodeJpeg(scene_, Sampling::Yuv420, 60, true);
  const Bytes grey = support::encodeJpeg(scene_, Sampling::Grey, 60);
  Bytes damaged = small_;
  for (std::size_t i = scan + 40; i < scan + 60; ++i) damaged[i] ^= 0x55;
  Bytes noTables = small_;
  noTables.erase(noTables.begin() + static_cast<long>(surgery::segments(small_, 0xDB).at(0)),
                 noTables.begin() + static_cast<long>(frame));
  // What comes without a size, with the pool's own, and with another one.
  struct {
    const char* name;
    Bytes jpeg;
    bool alone, told;
  } const table[] = {
      {"empty", {}, false, false},
      {"random", rubbish, false, false},
      {"random before the start", surgery::insert(small_, 0, tail), false, false},
      {"fill bytes", surgery::insert(small_, 2, {0xFF, 0xFF}), false, true},
      {"cut before the frame header",
       Bytes(small_.begin(), small_.begin() + static_cast<long>(frame)), false, false},
      {"bytes after the end", surgery::insert(small_, small_.size(), tail), true, true},
      {"no end", Bytes(small_.begin(), small_.end() - 2), true, true},
      {"damaged scan", damaged, true, true},
      {"no Huffman tables", surgery::withoutTables(small_), true, true},
      {"no quantisation tables", noTables, false, false},
      {"extended", surgery::withHeader(small_, 1, {0xC1}), false, true},
      {"progressive", progressive, false, true},
      {"progressive, cut", Bytes(progressive.begin(), progressive.end() - 150), false, true},
      {"arithmetic", surgery::encodeWith("TJ_ARITHMETIC", "1", scene_, Sampling::Yuv420), false,
       true},
      {"a thousand scans", surgery::withScans(progressive, 1000), false, false},
      {"hidden scans", surgery::withHiddenScans(grey, 150, 50), true, true},
      {"12 bits", surgery::withHeader(small_, 4, {12}), false, false},
      {"two components", surgery::withHeader(small_, 9, {2}), false, false},
      {"CMYK", surgery::cmyk(48, 32), false, false},
      {"lossless", surgery::withHeader(small_, 1, {0xC3}), false, false},
      {"hierarchical", surgery::withHeader(small_, 1, {0xC5}), false, false},
      {"no size", surgery::withSize(small_, 0, 0), false, false},
      {"no height", surgery::withSize(small_, 48, 0), false, false},
      {"no width", surgery::withSize(small_, 0, 32), false, false},
      // What the header claims, the data never holds: the limits come before the memory.
      {"65535 x 1", surgery::withSize(small_, 65535, 1), false, false},
      {"1 x 65535", surgery::withSize(small_, 1, 65535), false, false},
      {"16385 x 8", surgery::withSize(small_, 16385, 8), false, false},
      {"16384 x 16384", surgery::withSize(small_, 16384, 16384), false, false},
      {"8200 x 8200", surgery::withSize(small_, 8200, 8200), false, false}};
  const std::string call = "DecoderPool::DecodeJpeg - ";
  EXPECT_EQ(take({}), "");
  EXPECT_EQ(take({}, 48, 32), call + "no data\n");
  for (const auto& bad : table) {
    SCOPED_TRACE(bad.name);
    EXPECT_EQ(tryOut(bad.jpeg), bad.alone);
    EXPECT_EQ(tryOut(bad.jpeg, 48, 32), bad.told);
    EXPECT_EQ(tryOut(bad.jpeg, 640, 480), bad.told);
  }
}

TEST_F(BadInput, TruncatedAtEveryByte) {
  const Bytes whole = surgery::encodeWith("TJ_RESTART", "2B", scene_, Sampling::Yuv420);
  const std::size_t scan = surgery::segments(whole, 0xDA).at(0);
  const std::size_t data = scan + 14;
  for (std::size_t size = 0; size < whole.size() && !HasFailure(); ++size) {
    SCOPED_TRACE(size);
    const bool picture = tryOut(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)));
    // With its headers whole it goes as far as its data; within the last of them, who knows.
    if (size <= scan || size >= data) {
      EXPECT_EQ(picture, size >= data);
    }
  }
}

TEST_F(BadInput, EveryByteFlipped) {
  for (std::size_t i = 0; i < small_.size() && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    Bytes flipped = small_;
    flipped[i] = static_cast<std::uint8_t>(~flipped[i]);
    tryOut(flipped);
  }
}

}  // namespace
