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

class Probe : public testing::TestWithParam<Case> {};

TEST_P(Probe, FindsTheBaselineHeaderOrTouchesNothing) {
  const Case& tested = GetParam();
  // A copy of exactly that size, so that a read beyond it is seen.
  const std::unique_ptr<char[]> data(new char[tested.data.size()]);
  std::copy(tested.data.begin(), tested.data.end(), data.get());
  int width = -7, height = -9;
  EXPECT_EQ(GetJpegWidthAndHeight(width, height, data.get(),
                                  static_cast<unsigned int>(tested.data.size())),
            tested.found);
  EXPECT_EQ(width, tested.width);
  EXPECT_EQ(height, tested.height);
}

Bytes cut(const Bytes& data, std::size_t size) {
  return Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size));
}

INSTANTIATE_TEST_SUITE_P(
    Streams, Probe,
    testing::Values(
        Case{"empty", {}}, Case{"nine_bytes", cut(soi + sof0, 9)},
        Case{"ten_bytes_end_within_the_width", cut(soi + sof0, 10)},
        Case{"eleven_bytes_suffice_at_the_start", cut(soi + sof0, 11), true, 513, 258},
        Case{"any_first_two_bytes", Bytes{0, 0} + sof0, true, 513, 258},
        Case{"no_start_of_image", sof0 + Bytes(20, 0xFF)},
        Case{"jfif", soi + segment(0xE0, 14) + segment(0xDB, 65) + sof0, true, 513, 258},
        Case{"exif_and_comments",
             soi + segment(0xE1, 65533) + segment(0xFE, 0) + segment(0xC4, 300) + sof0, true, 513,
             258},
        Case{"nine_bytes_left_of_a_later_header", soi + segment(0xE0, 2) + cut(sof0, 9)},
        Case{"progressive", soi + segment(0xC2, 15) + Bytes(20, 0x12)},
        Case{"extended_then_baseline", soi + segment(0xC1, 15) + sof0, true, 513, 258},
        Case{"height_comes_later", soi + Bytes{0xFF, 0xC0, 0, 17, 8, 0, 0, 0x80, 1, 3}, true, 32769,
             0},
        Case{"fill_byte", soi + Bytes{0xFF} + sof0 + Bytes(20, 0)},
        Case{"length_0_moves_on_by_2", soi + Bytes{0xFF, 0xE0, 0, 0} + sof0 + Bytes(20, 0)},
        Case{"length_1_moves_on_by_3", soi + Bytes{0xFF, 0xE0, 0, 1} + Bytes{0xC0} + Bytes(20, 0)},
        Case{"length_2_is_an_empty_segment", soi + Bytes{0xFF, 0xE0, 0, 2} + sof0, true, 513, 258},
        Case{"segment_beyond_the_end", soi + Bytes{0xFF, 0xE0, 0xFF, 0xFF} + Bytes(40, 0xFF)}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(JpegProbe, NullIsNoPicture) {
  int width = 1, height = 2;
  EXPECT_FALSE(GetJpegWidthAndHeight(width, height, nullptr, 100));
  EXPECT_EQ(width + height, 3);
}

}  // namespace
