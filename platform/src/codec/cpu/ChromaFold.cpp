#include "codec/cpu/ChromaFold.h"

#include <algorithm>
#include <cstring>

namespace codec {

namespace {

/// Samples from `first` up to `end` lie under a target sample; never none.
struct Span {
  unsigned first;
  unsigned end;
};

Span spanUnder(unsigned index, unsigned unit, Ratio ratio, unsigned limit) {
  const unsigned first = std::min(index * unit * ratio.samples / ratio.pixels, limit - 1);
  const unsigned end = ((index + 1) * unit * ratio.samples + ratio.pixels - 1) / ratio.pixels;
  return {first, std::clamp(end, first + 1, limit)};
}

void copyRow(const std::uint8_t* a, const std::uint8_t* b, unsigned width, std::uint8_t* to) {
  if (a == b)
    std::memcpy(to, a, width);
  else
    for (unsigned x = 0; x < width; ++x) to[x] = static_cast<std::uint8_t>((a[x] + b[x] + 1) >> 1);
}

void halveRow(const std::uint8_t* a, const std::uint8_t* b, unsigned width, std::uint8_t* to) {
  for (unsigned x = 0; x < width; ++x)
    to[x] = static_cast<std::uint8_t>((a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1] + 2) >> 2);
}

void doubleRow(const std::uint8_t* a, const std::uint8_t* b, unsigned width, std::uint8_t* to) {
  for (unsigned x = 0; x < width; ++x)
    to[x] = static_cast<std::uint8_t>((a[x / 2] + b[x / 2] + 1) >> 1);
}

void foldRow(const Band& band, Span rows, Ratio across, unsigned unit, unsigned width,
             std::uint8_t* to) {
  for (unsigned x = 0; x < width; ++x) {
    const Span columns = spanUnder(x, unit, across, band.width);
    unsigned sum = 0;
    for (unsigned j = rows.first; j < rows.end; ++j)
      for (unsigned i = columns.first; i < columns.end; ++i) sum += band.rows[j * band.stride + i];
    const unsigned count = (rows.end - rows.first) * (columns.end - columns.first);
    // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): a Span is never empty
    to[x] = static_cast<std::uint8_t>((sum + count / 2) / count);
  }
}

/// Weights of the full-range BT.601 matrix in 1/65536.
constexpr int half = 1 << 15;

std::uint8_t luma(const int* rgb) {
  return static_cast<std::uint8_t>((19595 * rgb[0] + 38470 * rgb[1] + 7471 * rgb[2] + half) >> 16);
}

std::uint8_t chroma(const int* weights, const int* sums) {
  // Four pixels' sum, so two bits more to drop; 128 in the middle.
  const int value = weights[0] * sums[0] + weights[1] * sums[1] + weights[2] * sums[2];
  return static_cast<std::uint8_t>(std::clamp((value + (128 << 18) + (half << 2)) >> 18, 0, 255));
}

}  // namespace

void fold(const Band& band, Ratio across, Ratio down, const FoldTarget& target) {
  const bool doubled = across.samples * target.unit * 2 == across.pixels;
  const bool same = across.samples * target.unit == across.pixels;
  const bool halved = across.samples * target.unit == across.pixels * 2;
  if (halved && band.width % 2 != 0)
    for (unsigned y = 0; y < band.height; ++y)
      band.rows[y * band.stride + band.width] = band.rows[y * band.stride + band.width - 1];
  for (unsigned y = 0; y < target.height; ++y) {
    const Span rows = spanUnder(y, target.unit, down, band.height);
    std::uint8_t* to = target.rows + y * target.stride;
    const std::uint8_t* a = band.rows + rows.first * band.stride;
    const std::uint8_t* b = band.rows + (rows.end - 1) * band.stride;
    if (rows.end - rows.first > 2 || !(doubled || same || halved))
      foldRow(band, rows, across, target.unit, target.width, to);
    else if (doubled)
      doubleRow(a, b, target.width, to);
    else if (same)
      copyRow(a, b, target.width, to);
    else
      halveRow(a, b, target.width, to);
  }
}

void foldRgb(const std::uint8_t* upper, const std::uint8_t* lower, unsigned width,
             std::uint8_t* yUpper, std::uint8_t* yLower, std::uint8_t* u, std::uint8_t* v) {
  static constexpr int blue[3] = {-11059, -21709, 32768};
  static constexpr int red[3] = {32768, -27439, -5329};
  for (unsigned x = 0; x < width; x += 2) {
    int sums[3] = {0, 0, 0};
    for (unsigned k = 0; k < 4; ++k) {
      const unsigned column = std::min(x + k % 2, width - 1);
      const std::uint8_t* pixel = (k < 2 ? upper : lower) + std::size_t{column} * 3;
      const int rgb[3] = {pixel[0], pixel[1], pixel[2]};
      (k < 2 ? yUpper : yLower)[column] = luma(rgb);
      for (int c = 0; c < 3; ++c) sums[c] += rgb[c];
    }
    u[x / 2] = chroma(blue, sums);
    v[x / 2] = chroma(red, sums);
  }
}

}  // namespace codec
