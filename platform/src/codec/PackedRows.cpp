#include "codec/PackedRows.h"

#include <algorithm>
#include <cstddef>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace codec {

namespace {

/// Whole pairs that the vector unit takes; the plain loop does the rest.
#if defined(__SSE2__)
unsigned splitVector(const std::uint8_t* from, unsigned pairs, std::uint8_t* y, std::uint8_t* u,
                     std::uint8_t* v) {
  const __m128i low = _mm_set1_epi16(0x00ff);
  unsigned i = 0;
  for (; i + 16 <= pairs; i += 16) {
    const auto* source = reinterpret_cast<const __m128i*>(from + std::size_t{i} * 4);
    const __m128i a = _mm_loadu_si128(source), b = _mm_loadu_si128(source + 1);
    const __m128i c = _mm_loadu_si128(source + 2), d = _mm_loadu_si128(source + 3);
    auto* luma = reinterpret_cast<__m128i*>(y + std::size_t{i} * 2);
    _mm_storeu_si128(luma, _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low)));
    _mm_storeu_si128(luma + 1, _mm_packus_epi16(_mm_and_si128(c, low), _mm_and_si128(d, low)));
    const __m128i uv0 = _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
    const __m128i uv1 = _mm_packus_epi16(_mm_srli_epi16(c, 8), _mm_srli_epi16(d, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + i),
                     _mm_packus_epi16(_mm_and_si128(uv0, low), _mm_and_si128(uv1, low)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + i),
                     _mm_packus_epi16(_mm_srli_epi16(uv0, 8), _mm_srli_epi16(uv1, 8)));
  }
  return i;
}
#elif defined(__ARM_NEON)
unsigned splitVector(const std::uint8_t* from, unsigned pairs, std::uint8_t* y, std::uint8_t* u,
                     std::uint8_t* v) {
  unsigned i = 0;
  for (; i + 16 <= pairs; i += 16) {
    const uint8x16x4_t pixels = vld4q_u8(from + std::size_t{i} * 4);
    vst2q_u8(y + std::size_t{i} * 2, uint8x16x2_t{{pixels.val[0], pixels.val[2]}});
    vst1q_u8(u + i, pixels.val[1]);
    vst1q_u8(v + i, pixels.val[3]);
  }
  return i;
}
#else
unsigned splitVector(const std::uint8_t*, unsigned, std::uint8_t*, std::uint8_t*, std::uint8_t*) {
  return 0;
}
#endif

void expand565(const std::uint8_t* from, unsigned width, std::uint8_t* rgb) {
  for (unsigned x = 0; x < width; ++x) {
    const unsigned word = from[2 * x] | from[2 * x + 1] << 8;
    const unsigned r = word >> 11, g = word >> 5 & 63, b = word & 31;
    // The high bits again below: 31 becomes 255, 0 stays 0.
    rgb[3 * x] = static_cast<std::uint8_t>(r << 3 | r >> 2);
    rgb[3 * x + 1] = static_cast<std::uint8_t>(g << 2 | g >> 4);
    rgb[3 * x + 2] = static_cast<std::uint8_t>(b << 3 | b >> 2);
  }
}

void expand1887(const std::uint8_t* from, unsigned width, std::uint8_t* rgb) {
  for (unsigned x = 0; x < width; ++x) {
    const unsigned word =
        from[3 * x] | unsigned{from[3 * x + 1]} << 8 | unsigned{from[3 * x + 2]} << 16;
    const unsigned b = word & 127;
    rgb[3 * x] = static_cast<std::uint8_t>(word >> 15);
    rgb[3 * x + 1] = static_cast<std::uint8_t>(word >> 7);
    rgb[3 * x + 2] = static_cast<std::uint8_t>(b << 1 | b >> 6);
  }
}

}  // namespace

PackedRows::PackedRows(const PackedPicture& picture) : picture_(picture) {
  const std::size_t rowBytes = std::size_t{picture.width} * bytesPerPixel(picture.format);
  if (picture.data == nullptr || rowBytes == 0 || picture.size < rowBytes) return;
  const std::size_t after =
      picture.stride == 0 ? picture.height : (picture.size - rowBytes) / picture.stride;
  covered_ = static_cast<unsigned>(std::min<std::size_t>(picture.height, after + 1));
}

const std::uint8_t* PackedRows::row(unsigned index) const {
  return picture_.data + std::size_t{std::min(index, covered_ - 1)} * picture_.stride;
}

void PackedRows::deinterleave(unsigned index, std::uint8_t* y, std::uint8_t* u,
                              std::uint8_t* v) const {
  const std::uint8_t* from = row(index);
  const unsigned pairs = picture_.width / 2;
  for (unsigned i = splitVector(from, pairs, y, u, v); i < pairs; ++i) {
    y[2 * i] = from[4 * i];
    u[i] = from[4 * i + 1];
    y[2 * i + 1] = from[4 * i + 2];
    v[i] = from[4 * i + 3];
  }
  if (picture_.width % 2 == 0) return;
  const std::size_t lastV = std::size_t{pairs} * 4 + 3;
  const bool whole = lastV < picture_.stride &&
                     lastV < picture_.size - static_cast<std::size_t>(from - picture_.data);
  y[2 * pairs] = from[4 * pairs];
  u[pairs] = from[4 * pairs + 1];
  if (whole)
    v[pairs] = from[lastV];
  else
    v[pairs] = pairs > 0 ? v[pairs - 1] : 128;
}

void PackedRows::expand(unsigned index, std::uint8_t* rgb) const {
  if (picture_.format == PixelFormat::Rgb565)
    expand565(row(index), picture_.width, rgb);
  else
    expand1887(row(index), picture_.width, rgb);
}

}  // namespace codec
