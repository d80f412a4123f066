#include "FrameLayout.h"

#include <algorithm>
#include <cstring>

namespace tool {
namespace {

/// A plane of units that repeat: bytes of a gray plane, pixels, YUYV pairs.
struct Plane {
  std::size_t unit;  ///< bytes
  int columns;       ///< units a row
  int rows;

  std::size_t rowBytes() const { return unit * static_cast<std::size_t>(columns); }
  std::size_t bytes() const { return rowBytes() * static_cast<std::size_t>(rows); }
};

Plane packedPlane(PixelFormat format, FrameSize size) {
  switch (format) {
    case PixelFormat::Yuyv:
      return {4, (size.width + 1) / 2, size.height};
    case PixelFormat::Rgb16:
      return {2, size.width, size.height};
    case PixelFormat::Rgb24:
      return {3, size.width, size.height};
    case PixelFormat::Rgb32:
      return {4, size.width, size.height};
    case PixelFormat::I420:
      break;
  }
  return {1, size.width, size.height};
}

Plane chromaPlane(FrameSize size) {
  return {1, (size.width + 1) / 2, (size.height + 1) / 2};
}

/// Copies `from` rows into the larger plane and repeats the last column and the last row.
void spread(const Plane& small, const std::uint8_t* from, const Plane& large, std::uint8_t* to) {
  for (int row = 0; row < large.rows; ++row, to += large.rowBytes()) {
    const int source = std::min(row, small.rows - 1);
    std::memcpy(to, from + small.rowBytes() * static_cast<std::size_t>(source), small.rowBytes());
    const std::uint8_t* last = to + small.rowBytes() - small.unit;
    for (int column = small.columns; column < large.columns; ++column)
      std::memcpy(to + large.unit * static_cast<std::size_t>(column), last, large.unit);
  }
}

/// The second luma of a pair is what a row's padding repeats; an odd width has none of its own
/// there.
void repeatLastLuma(FrameSize size, std::uint8_t* padded) {
  const FrameSize rounded = size.rounded();
  const std::size_t stride = packedPlane(PixelFormat::Yuyv, rounded).rowBytes();
  for (int row = 0; row < rounded.height; ++row, padded += stride) {
    const std::size_t last = static_cast<std::size_t>(size.width - 1) * 2;
    for (std::size_t at = last + 2; at < stride; at += 2) padded[at] = padded[last];
  }
}

void takePlane(const Plane& small, const Plane& large, const std::uint8_t* from, std::uint8_t* to) {
  for (int row = 0; row < small.rows; ++row) {
    std::memcpy(to, from, small.rowBytes());
    to += small.rowBytes();
    from += large.rowBytes();
  }
}

}  // namespace

const char* nameOf(PixelFormat format) {
  constexpr const char* names[] = {"yuyv", "rgb16", "rgb24", "rgb32", "i420"};
  return names[static_cast<int>(format)];
}

bool isBeyondDecoders(FrameSize size) {
  return size.width > longestSide || size.height > longestSide ||
         static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height) >
             mostPixels;
}

std::string decoderLimits() {
  return "a decoder takes at most " + std::to_string(longestSide) + " pixels either way and " +
         std::to_string(mostPixels) + " altogether";
}

std::uint64_t frameBytes(PixelFormat format, FrameSize size) {
  const auto area = [](const Plane& plane) {
    return std::uint64_t{plane.unit} * static_cast<std::uint64_t>(plane.columns) *
           static_cast<std::uint64_t>(plane.rows);
  };
  const std::uint64_t first = area(packedPlane(format, size));
  return format == PixelFormat::I420 ? first + 2 * area(chromaPlane(size)) : first;
}

void layOut(PixelFormat format, FrameSize size, const std::uint8_t* frame, std::uint8_t* padded) {
  const FrameSize rounded = size.rounded();
  const Plane small = packedPlane(format, size), large = packedPlane(format, rounded);
  spread(small, frame, large, padded);
  if (format == PixelFormat::Yuyv && size.width != rounded.width) repeatLastLuma(size, padded);
  if (format != PixelFormat::I420) return;

  const Plane smallChroma = chromaPlane(size), largeChroma = chromaPlane(rounded);
  const std::uint8_t* u = frame + small.bytes();
  std::uint8_t* paddedU = padded + large.bytes();
  spread(smallChroma, u, largeChroma, paddedU);
  spread(smallChroma, u + smallChroma.bytes(), largeChroma, paddedU + largeChroma.bytes());
}

void crop(FrameSize size, const std::uint8_t* padded, std::uint8_t* frame) {
  const FrameSize rounded = size.rounded();
  const Plane small = packedPlane(PixelFormat::I420, size);
  const Plane large = packedPlane(PixelFormat::I420, rounded);
  const Plane smallChroma = chromaPlane(size), largeChroma = chromaPlane(rounded);
  takePlane(small, large, padded, frame);
  frame += small.bytes();
  padded += large.bytes();
  takePlane(smallChroma, largeChroma, padded, frame);
  takePlane(smallChroma, largeChroma, padded + largeChroma.bytes(), frame + smallChroma.bytes());
}

void toYuyv(FrameSize size, const std::uint8_t* i420, std::uint8_t* yuyv) {
  const Plane luma = packedPlane(PixelFormat::I420, size), chroma = chromaPlane(size);
  const std::uint8_t* y = i420;
  for (int row = 0; row < size.height; ++row, y += luma.rowBytes()) {
    const std::uint8_t* u =
        i420 + luma.bytes() + static_cast<std::size_t>(row / 2) * chroma.rowBytes();
    const std::uint8_t* v = u + chroma.bytes();
    for (int pair = 0; pair < chroma.columns; ++pair, yuyv += 4) {
      yuyv[0] = y[2 * pair];
      yuyv[1] = u[pair];
      yuyv[2] = y[std::min(2 * pair + 1, size.width - 1)];
      yuyv[3] = v[pair];
    }
  }
}

void toFullRange(std::uint8_t* yuyv, std::size_t bytes) {
  struct Table {
    std::uint8_t luma[256], chroma[256];
    Table() {
      for (int i = 0; i < 256; ++i) {
        luma[i] = static_cast<std::uint8_t>(std::clamp(((i - 16) * 255 + 109) / 219, 0, 255));
        chroma[i] = static_cast<std::uint8_t>(std::clamp((i * 255 - 128 * 31 + 112) / 224, 0, 255));
      }
    }
  };
  static const Table table;
  for (std::size_t i = 0; i + 1 < bytes; i += 2) {
    yuyv[i] = table.luma[yuyv[i]];
    yuyv[i + 1] = table.chroma[yuyv[i + 1]];
  }
}

void toArgb1887(std::uint8_t* pixels, std::size_t bytes) {
  for (std::uint8_t* p = pixels; p < pixels + bytes; p += 3) {
    const std::uint32_t word = 0x800000u | static_cast<std::uint32_t>(p[0]) << 15 |
                               static_cast<std::uint32_t>(p[1]) << 7 | p[2] >> 1;
    p[0] = static_cast<std::uint8_t>(word);
    p[1] = static_cast<std::uint8_t>(word >> 8);
    p[2] = static_cast<std::uint8_t>(word >> 16);
  }
}

void toArgb8888(std::uint8_t* pixels, std::size_t bytes) {
  for (std::uint8_t* p = pixels; p < pixels + bytes; p += 4) std::swap(p[0], p[2]);
}

}  // namespace tool
