#include "codec/kernel/RawFrame.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>

namespace codec::kernel {

namespace {

/// A planar 4:2:0 format: in how many pieces of memory, chroma interleaved or not, V first or not.
struct Kind {
  std::uint32_t fourcc;
  unsigned planes;
  bool interleaved;
  bool vFirst;
};

// The cheapest first.
constexpr Kind kinds[] = {
    {V4L2_PIX_FMT_YUV420, 1, false, false}, {V4L2_PIX_FMT_YUV420M, 3, false, false},
    {V4L2_PIX_FMT_YVU420, 1, false, true},  {V4L2_PIX_FMT_YVU420M, 3, false, true},
    {V4L2_PIX_FMT_NV12, 1, true, false},    {V4L2_PIX_FMT_NV12M, 2, true, false},
    {V4L2_PIX_FMT_NV21, 1, true, true},     {V4L2_PIX_FMT_NV21M, 2, true, true},
};

const Kind* kindOf(std::uint32_t fourcc) {
  for (const Kind& each : kinds)
    if (each.fourcc == fourcc) return &each;
  return nullptr;
}

/// Where a frame's planes lie; for interleaved chroma `u` is the pairs'.
struct Layout {
  Planes planes;
  bool interleaved = false;
  bool vFirst = false;
  unsigned rows = 0;  ///< of luma
};

bool layOut(const Format& format, const Buffer& buffer, Layout& layout) {
  const Kind* const kind = kindOf(format.fourcc);
  if (kind == nullptr || kind->planes != format.planes || buffer.planes < format.planes)
    return false;
  const unsigned stride = format.bytesPerLine[0] != 0 ? format.bytesPerLine[0] : format.width;
  const unsigned chromaRows = (format.height + 1) / 2;
  unsigned chromaStride = kind->interleaved ? stride : stride / 2;
  if (kind->planes > 1 && format.bytesPerLine[1] != 0) chromaStride = format.bytesPerLine[1];
  const std::size_t luma = std::size_t{stride} * format.height;
  const std::size_t chroma = std::size_t{chromaStride} * chromaRows;
  const unsigned chromaPlanes = kind->interleaved ? 1 : 2;
  if (stride < format.width ||
      (kind->planes == 1 && buffer.capacity[0] < luma + chromaPlanes * chroma))
    return false;
  std::uint8_t* first = buffer.data[0] + luma;
  std::uint8_t* second = first + chroma;
  if (kind->planes > 1) {
    first = buffer.data[1];
    second = buffer.data[kind->planes - 1];
    for (unsigned i = 0; i < kind->planes; ++i)
      if (buffer.capacity[i] < (i == 0 ? luma : chroma)) return false;
  }
  layout.interleaved = kind->interleaved;
  layout.vFirst = kind->vFirst;
  layout.rows = format.height;
  layout.planes = {buffer.data[0], first, second, stride, chromaStride};
  if (kind->vFirst && !kind->interleaved) std::swap(layout.planes.u, layout.planes.v);
  return true;
}

/// Copies a row and repeats its last sample up to the frame's width.
void copyRow(std::uint8_t* to, unsigned toWidth, const std::uint8_t* from, unsigned width) {
  const unsigned copied = std::min(width, toWidth);
  std::memcpy(to, from, copied);
  if (toWidth > copied) std::memset(to + copied, to[copied - 1], toWidth - copied);
}

void mergeRow(std::uint8_t* to, unsigned toPairs, const std::uint8_t* first,
              const std::uint8_t* second, unsigned pairs) {
  const unsigned copied = std::min(pairs, toPairs);
  for (unsigned i = 0; i < copied; ++i) {
    to[2 * i] = first[i];
    to[2 * i + 1] = second[i];
  }
  for (unsigned i = copied; i < toPairs; ++i) {
    to[2 * i] = first[copied - 1];
    to[2 * i + 1] = second[copied - 1];
  }
}

void splitRow(const std::uint8_t* pairs, unsigned count, std::uint8_t* first,
              std::uint8_t* second) {
  for (unsigned i = 0; i < count; ++i) {
    first[i] = pairs[2 * i];
    second[i] = pairs[2 * i + 1];
  }
}

}  // namespace

std::uint32_t planarFormat(const std::vector<std::uint32_t>& offered) {
  for (const Kind& each : kinds)
    if (std::find(offered.begin(), offered.end(), each.fourcc) != offered.end()) return each.fourcc;
  return 0;
}

bool writeFrame(const Format& format, const ConstPlanes& picture, unsigned width, unsigned height,
                Buffer& buffer) {
  Layout layout;
  if (!layOut(format, buffer, layout) || width == 0 || height == 0) return false;
  const Planes& to = layout.planes;
  for (unsigned y = 0; y < layout.rows; ++y)
    copyRow(to.y + std::size_t{y} * to.yStride, format.width,
            picture.y + std::size_t{std::min(y, height - 1)} * picture.yStride, width);
  const unsigned chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
  const unsigned toWidth = (format.width + 1) / 2;
  for (unsigned y = 0; y < (layout.rows + 1) / 2; ++y) {
    const std::size_t from = std::size_t{std::min(y, chromaHeight - 1)} * picture.uvStride;
    const std::size_t at = std::size_t{y} * to.uvStride;
    const std::uint8_t* const u = picture.u + from;
    const std::uint8_t* const v = picture.v + from;
    if (layout.interleaved) {
      mergeRow(to.u + at, toWidth, layout.vFirst ? v : u, layout.vFirst ? u : v, chromaWidth);
      continue;
    }
    copyRow(to.u + at, toWidth, u, chromaWidth);
    copyRow(to.v + at, toWidth, v, chromaWidth);
  }
  for (unsigned i = 0; i < format.planes; ++i)
    buffer.used[i] = std::min<std::size_t>(format.sizeImage[i], buffer.capacity[i]);
  return true;
}

bool readFrame(const Format& format, const Rect& visible, const Buffer& buffer,
               const Planes& picture) {
  Layout layout;
  if (!layOut(format, buffer, layout)) return false;
  const Planes& from = layout.planes;
  for (unsigned y = 0; y < visible.height; ++y)
    std::memcpy(picture.y + std::size_t{y} * picture.yStride,
                from.y + std::size_t{visible.top + y} * from.yStride + visible.left, visible.width);
  const unsigned chromaWidth = (visible.width + 1) / 2;
  for (unsigned y = 0; y < (visible.height + 1) / 2; ++y) {
    const std::size_t at = std::size_t{visible.top / 2 + y} * from.uvStride;
    const std::size_t to = std::size_t{y} * picture.uvStride;
    if (layout.interleaved) {
      const std::uint8_t* const pairs = from.u + at + (visible.left & ~1u);
      splitRow(pairs, chromaWidth, (layout.vFirst ? picture.v : picture.u) + to,
               (layout.vFirst ? picture.u : picture.v) + to);
      continue;
    }
    std::memcpy(picture.u + to, from.u + at + visible.left / 2, chromaWidth);
    std::memcpy(picture.v + to, from.v + at + visible.left / 2, chromaWidth);
  }
  return true;
}

}  // namespace codec::kernel
