#include <gtest/gtest.h>
#include <tessera/JpegProbe.h>

#include <algorithm>
#include <memory>

#include "support/Pictures.h"

namespace {

using support::Bytes;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes soi{0xFF, 0xD8};
// 513 x 258, as far as the probe reads it and one byte more.
const Bytes sof0{0xFF, 0xC0, 0x00, 0x11, 8, 0x01, 0x02, 0x02, 0x01, 3};

/// A segment with that many bytes of payload, all of them looking like markers.
Bytes segment(std::uint8_t code, std::size_t payload) {
  const std::size_t length = payload + 2;
  return Bytes{0xFF, code, static_cast<std::uint8_t>(length >> 8),
               static_cast<std::uint8_t>(length)} +
         Bytes(payload, 0xFF);
}

struct Case {
  const char* name;
  Bytes data;
  bool found = false;
  int width = -7, height = -9;  // untouched
};

Bytes cut(const Bytes& data, std::size_t size) {
  return Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size));
}

const Case cases[] = {
    {"empty", {}},
    {"nine bytes", cut(soi + sof0, 9)},
    {"ten bytes end within the width", cut(soi + sof0, 10)},
    {"eleven bytes suffice at the start", cut(soi + sof0, 11), true, 513, 258},
    {"any first two bytes", Bytes{0, 0} + sof0, true, 513, 258},
    {"no start of image", sof0 + Bytes(20, 0xFF)},
    {"jfif", soi + segment(0xE0, 14) + segment(0xDB, 65) + sof0, true, 513, 258},
    {"exif and comments", soi + segment(0xE1, 65533) + segment(0xFE, 0) + segment(0xC4, 300) + sof0,
     true, 513, 258},
    {"nine bytes left of a later header", soi + segment(0xE0, 2) + cut(sof0, 9)},
    {"progressive", soi + segment(0xC2, 15) + Bytes(20, 0x12)},
    {"extended then baseline", soi + segment(0xC1, 15) + sof0, true, 513, 258},
    {"height comes later", soi + Bytes{0xFF, 0xC0, 0, 17, 8, 0, 0, 0x80, 1, 3}, true, 32769, 0},
    {"fill byte", soi + Bytes{0xFF} + sof0 + Bytes(20, 0)},
    {"length 0 moves on by 2", soi + Bytes{0xFF, 0xE0, 0, 0} + sof0 + Bytes(20, 0)},
    {"length 1 moves on by 3", soi + Bytes{0xFF, 0xE0, 0, 1} + Bytes{0xC0} + Bytes(20, 0)},
    {"length 2 is an empty segment", soi + Bytes{0xFF, 0xE0, 0, 2} + sof0, true, 513, 258},
    {"segment beyond the end", soi + Bytes{0xFF, 0xE0, 0xFF, 0xFF} + Bytes(40, 0xFF)}};

TEST(JpegProbe, FindsTheBaselineHeaderOrTouchesNothing) {
  for (const Case& tested : cases) {
    SCOPED_TRACE(tested.name);
    // A copy of exactly that size, so that a read beyond it is seen.
    const auto size = tested.data.size();
    const std::unique_ptr<char[]> data(new char[size]);
    std::copy(tested.data.begin(), tested.data.end(), data.get());
    int width = -7, height = -9;
    EXPECT_EQ(GetJpegWidthAndHeight(width, height, data.get(), static_cast<unsigned int>(size)),
              tested.found);
    EXPECT_EQ(width, tested.width);
    EXPECT_EQ(height, tested.height);
  }
}

TEST(JpegProbe, NullIsNoPicture) {
  int width = 1, height = 2;
  EXPECT_FALSE(GetJpegWidthAndHeight(width, height, nullptr, 100));
  EXPECT_EQ(width + height, 3);
}

}  // namespace
