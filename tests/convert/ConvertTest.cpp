// Every kernel that this machine runs against the conversions' definition, written down here once
// more, byte by byte: whole buffers are compared, so a byte too many shows as well as one too few.

#include <gtest/gtest.h>
#include <tessera/FrameConversion.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "convert/Kernels.h"
#include "support/GuardedMemory.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t largestPicture = 14 << 20;
constexpr std::size_t largestSource = 18 << 20;
constexpr std::uint8_t canary = 0xC5;

Bytes noise(std::size_t size) {
  std::mt19937 random(20240229);
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

std::size_t paddedSize(std::size_t width, std::size_t height) {
  return (width + 31) / 32 * 32 * ((height + 15) / 16 * 16) * 3 / 2;
}

std::size_t packedSize(std::size_t width, std::size_t height) {
  return (width + 1) / 2 * 4 * height;
}

/// What a padded I420 destination holds afterwards, by the place of each source byte.
Bytes expectI420(const std::uint8_t* source, std::size_t sourceSize, std::uint64_t width,
                 std::uint64_t height, std::size_t capacity) {
  Bytes picture(capacity, canary);
  const std::uint64_t stride = (width + 31) / 32 * 32;
  std::uint64_t area = 0;
  // Products beyond 64 bits: out of every buffer's reach.
  if (__builtin_mul_overflow(stride, (height + 15) / 16 * 16, &area) || area > UINT64_MAX / 2) {
    area = UINT64_MAX / 2;
  }
  const auto put = [&](std::uint64_t place, std::uint8_t value) {
    if (place < capacity) picture[static_cast<std::size_t>(place)] = value;
  };
  const std::uint64_t rowGroups = (width + 1) / 2;
  for (std::uint64_t group = 0; rowGroups > 0 && group < sourceSize / 4; ++group) {
    const std::uint64_t x = group % rowGroups, y = group / rowGroups;
    if (y >= height) break;
    const std::uint8_t* bytes = source + 4 * group;
    put(y * stride + 2 * x, bytes[0]);
    put(y * stride + 2 * x + 1, bytes[2]);
    if (y % 2 == 1) continue;
    put(area + y / 2 * (stride / 2) + x, bytes[1]);
    put(area + area / 4 + y / 2 * (stride / 2) + x, bytes[3]);
  }
  return picture;
}

Bytes expectNv12(const std::uint8_t* source, std::size_t width, std::size_t height) {
  Bytes picture(width * height + width * (height / 2), canary);
  for (std::size_t i = 0; i < width * height; ++i) picture[i] = source[2 * i];
  for (std::size_t k = 0; k < height / 2; ++k) {
    for (std::size_t x = 0; x < width; ++x) {
      picture[width * (height + k) + x] = source[2 * (2 * k * width + x) + 1];
    }
  }
  return picture;
}

/// Source and destination at one end of guarded memory, refilled for each run.
class Bench {
 public:
  void convertI420(std::size_t sourceSize, unsigned width, unsigned height, std::size_t capacity) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height) + " source " +
                 std::to_string(sourceSize) + " capacity " + std::to_string(capacity));
    compare(sourceSize, expectI420(content_.data(), sourceSize, width, height, capacity),
            [&](std::uint8_t* from, std::uint8_t* to) {
              unsigned outSize = 1;
              CopyYVYU(from, static_cast<unsigned>(sourceSize), width, height, to,
                       static_cast<unsigned>(capacity), outSize);
              EXPECT_EQ(outSize, capacity);
            });
  }

  void convertNv12(unsigned width, unsigned height) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    compare(2 * std::size_t{width} * height, expectNv12(content_.data(), width, height),
            [&](std::uint8_t* from, std::uint8_t* to) {
              YUYVToNV12(from, to, static_cast<int>(width), static_cast<int>(height));
            });
  }

 private:
  /// Once with both buffers at the start of their memory, once at the end.
  template <typename Convert>
  void compare(std::size_t sourceSize, const Bytes& expected, Convert convert) {
    for (const bool atEnd : {false, true}) {
      std::uint8_t* from = atEnd ? source_.atEnd(sourceSize) : source_.atStart();
      std::uint8_t* to = atEnd ? destination_.atEnd(expected.size()) : destination_.atStart();
      std::memcpy(from, content_.data(), sourceSize);
      std::memset(to, canary, expected.size());
      convert(from, to);
      const auto place = std::mismatch(expected.begin(), expected.end(), to).first;
      ASSERT_EQ(place - expected.begin(), static_cast<std::ptrdiff_t>(expected.size()))
          << "the first byte that differs";
    }
  }

  const Bytes content_ = noise(largestSource);
  GuardedMemory source_{largestSource};
  GuardedMemory destination_{largestPicture};
};

std::vector<const convert::Kernels*> kernelsHere() {
  std::size_t count = 0;
  const convert::Kernels* const* first = convert::RunnableKernels(count);
  return {first, first + count};
}

class EveryKernel : public testing::TestWithParam<const convert::Kernels*> {
 protected:
  void SetUp() override { convert::ForceKernels(GetParam()); }
  void TearDown() override { convert::ForceKernels(nullptr); }

  static Bench& bench() {
    static Bench shared;
    return shared;
  }
};

TEST_P(EveryKernel, ConvertsEverySmallSize) {
  for (unsigned width = 0; width <= 130 && !HasFailure(); ++width) {
    for (unsigned height = 0; height <= 20 && !HasFailure(); ++height) {
      bench().convertI420(packedSize(width, height), width, height, paddedSize(width, height));
      bench().convertNv12(width, height);
    }
  }
}

// Large enough to go past the caches: rows that stay on one alignment, and rows that do not.
TEST_P(EveryKernel, ConvertsSizesThatAreStreamed) {
  for (const auto& [width, height] : {std::pair{3840u, 2161u}, {4000u, 1500u}, {3937u, 1511u}}) {
    bench().convertI420(packedSize(width, height), width, height, paddedSize(width, height));
    bench().convertNv12(width, height);
  }
}

TEST_P(EveryKernel, ClipsAtTheEndOfBothBuffers) {
  std::mt19937 random(99);
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    const unsigned width = random() % 200, height = random() % 40;
    const std::size_t whole = packedSize(width, height), padded = paddedSize(width, height);
    const std::size_t sourceSize = round % 3 == 0 ? whole : random() % (whole + 9);
    const std::size_t capacity = round % 3 == 1 ? padded : random() % (padded + 9);
    bench().convertI420(sourceSize, width, height, capacity);
  }
}

// Sizes whose strides, areas or offsets do not fit in 32 or even 64 bits must be clipped, not
// wrapped round into the buffer.
TEST_P(EveryKernel, ClipsSizesThatOverflow) {
  const unsigned huge[] = {1,       2,          33,         65535,      65536,      0x10001,
                           1 << 30, 0x7FFFFFFF, 0x80000000, 0xFFFFFFE0, 0xFFFFFFE1, 0xFFFFFFFF};
  for (const unsigned width : huge) {
    for (const unsigned height : huge) {
      bench().convertI420(5003, width, height, 3001);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Here, EveryKernel, testing::ValuesIn(kernelsHere()),
                         [](const auto& kernels) { return std::string(kernels.param->name); });

TEST(Dispatch, UsesTheBestOfWhatTheProcessorHas) {
  const auto here = kernelsHere();
  EXPECT_STREQ(here.front()->name, "plain");
  EXPECT_EQ(&convert::ActiveKernels(), here.back());
#if defined(__x86_64__)
  std::ifstream file("/proc/cpuinfo");
  const std::string info{std::istreambuf_iterator<char>(file), {}};
  for (const char* name : {"sse2", "avx2", "avx512bw"}) {
    const bool listed = std::any_of(here.begin(), here.end(), [&](const convert::Kernels* kernels) {
      return std::strcmp(kernels->name, name) == 0;
    });
    EXPECT_EQ(listed, info.find(std::string(" ") + name + " ") != std::string::npos) << name;
  }
#endif
}

TEST(CopyYVYU, LaysOutAPictureByHand) {
  // 3 x 3: two groups a row, the fourth luma byte of a row in the padding.
  Bytes source(24), picture(32 * 16 * 3 / 2, canary), expected = picture;
  for (std::size_t i = 0; i < source.size(); ++i) source[i] = static_cast<std::uint8_t>(i);
  const std::pair<std::size_t, Bytes> rows[] = {
      {0, {0, 2, 4, 6}}, {32, {8, 10, 12, 14}}, {64, {16, 18, 20, 22}}, {512, {1, 5}},
      {528, {17, 21}},   {640, {3, 7}},         {656, {19, 23}}};
  for (const auto& [place, row] : rows) std::copy(row.begin(), row.end(), &expected[place]);
  unsigned outSize = 0;
  CopyYVYU(source.data(), 24, 3, 3, picture.data(), 768, outSize);
  EXPECT_EQ(picture, expected);
  EXPECT_EQ(outSize, 768u);
}

TEST(CopyYVYU, TouchesNothingForAnEmptyPicture) {
  unsigned outSize = 0;
  CopyYVYU(nullptr, 0, 0, 480, nullptr, 4711, outSize);
  EXPECT_EQ(outSize, 4711u);
  CopyYVYU(nullptr, 0, 640, 0, nullptr, 4712, outSize);
  EXPECT_EQ(outSize, 4712u);
  CopyYVYU(nullptr, 0, 640, 480, nullptr, 0, outSize);
  EXPECT_EQ(outSize, 0u);
}

TEST(CopyI420, CopiesTheSmallerOfTheTwoSizes) {
  const Bytes content = noise(1000);
  for (const auto& [sourceSize, capacity] :
       {std::pair{1000u, 700u}, {700u, 1000u}, {0u, 9u}, {9u, 0u}}) {
    const std::size_t copied = std::min(sourceSize, capacity);
    Bytes source(content.begin(), content.begin() + sourceSize), picture(capacity, canary);
    Bytes expected = picture;
    std::copy_n(content.begin(), copied, expected.begin());
    unsigned outSize = 1;
    CopyI420(source.data(), sourceSize, 0, 0, picture.data(), capacity, outSize);
    EXPECT_EQ(outSize, copied);
    EXPECT_EQ(picture, expected);
  }
}

TEST(YUYVToNV12, LaysOutAPictureByHand) {
  const Bytes source{0, 1, 2, 3, 4, 5, 6, 7, 10, 11, 12, 13, 14, 15, 16, 17};
  Bytes picture(12, canary);
  YUYVToNV12(source.data(), picture.data(), 4, 2);
  EXPECT_EQ(picture, (Bytes{0, 2, 4, 6, 10, 12, 14, 16, 1, 3, 5, 7}));
}

TEST(YUYVToNV12, TouchesNothingForAnEmptyPicture) {
  for (const auto& [width, height] : {std::pair{0, 2}, {2, 0}, {-4, 2}, {4, -2}, {-4, -2}}) {
    YUYVToNV12(nullptr, nullptr, width, height);
  }
  if (sizeof(void*) == 4) YUYVToNV12(nullptr, nullptr, 0x7FFFFFFF, 0x7FFFFFFF);
}

}  // namespace
