#include "codec/PackedRows.h"

#include <libyuv/convert.h>

#include <algorithm>
#include <cstddef>

namespace codec {

namespace {

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
  if (pairs > 0) libyuv::YUY2ToI422(from, 0, y, 0, u, 0, v, 0, static_cast<int>(pairs * 2), 1);
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
