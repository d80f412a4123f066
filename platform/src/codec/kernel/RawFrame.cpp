#include "codec/kernel/RawFrame.h"

#include <libyuv/planar_functions.h>
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

/// Repeats the last sample of each row, and then the last row, up to the size of the frame.
template <typename Sample>
void pad(std::uint8_t* plane, unsigned stride, unsigned width, unsigned height, unsigned toWidth,
         unsigned toHeight) {
  for (unsigned y = 0; y < height && width < toWidth; ++y) {
    std::uint8_t* const row = plane + std::size_t{y} * stride;
    Sample last;
    std::memcpy(&last, row + (width - 1) * sizeof last, sizeof last);
    for (unsigned x = width; x < toWidth; ++x)
      std::memcpy(row + x * sizeof last, &last, sizeof last);
  }
  const std::uint8_t* const lowest = plane + std::size_t{height - 1} * stride;
  for (unsigned y = height; y < toHeight; ++y)
    std::memcpy(plane + std::size_t{y} * stride, lowest, toWidth * sizeof(Sample));
}

void copy(const std::uint8_t* from, unsigned fromStride, std::uint8_t* to, unsigned toStride,
          unsigned width, unsigned height) {
  libyuv::CopyPlane(from, static_cast<int>(fromStride), to, static_cast<int>(toStride),
                    static_cast<int>(width), static_cast<int>(height));
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
  const unsigned copied = std::min(width, format.width), rows = std::min(height, layout.rows);
  copy(picture.y, picture.yStride, to.y, to.yStride, copied, rows);
  pad<std::uint8_t>(to.y, to.yStride, copied, rows, format.width, layout.rows);
  const unsigned pairs = (copied + 1) / 2, pairRows = (rows + 1) / 2;
  const unsigned toPairs = (format.width + 1) / 2, toPairRows = (layout.rows + 1) / 2;
  if (layout.interleaved) {
    libyuv::MergeUVPlane(layout.vFirst ? picture.v : picture.u, static_cast<int>(picture.uvStride),
                         layout.vFirst ? picture.u : picture.v, static_cast<int>(picture.uvStride),
                         to.u, static_cast<int>(to.uvStride), static_cast<int>(pairs),
                         static_cast<int>(pairRows));
    pad<std::uint16_t>(to.u, to.uvStride, pairs, pairRows, toPairs, toPairRows);
  } else {
    copy(picture.u, picture.uvStride, to.u, to.uvStride, pairs, pairRows);
    copy(picture.v, picture.uvStride, to.v, to.uvStride, pairs, pairRows);
    for (std::uint8_t* const plane : {to.u, to.v})
      pad<std::uint8_t>(plane, to.uvStride, pairs, pairRows, toPairs, toPairRows);
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
  copy(from.y + std::size_t{visible.top} * from.yStride + visible.left, from.yStride, picture.y,
       picture.yStride, visible.width, visible.height);
  const unsigned pairs = (visible.width + 1) / 2, pairRows = (visible.height + 1) / 2;
  const std::size_t at = std::size_t{visible.top / 2} * from.uvStride;
  if (layout.interleaved) {
    libyuv::SplitUVPlane(from.u + at + (visible.left & ~1u), static_cast<int>(from.uvStride),
                         layout.vFirst ? picture.v : picture.u, static_cast<int>(picture.uvStride),
                         layout.vFirst ? picture.u : picture.v, static_cast<int>(picture.uvStride),
                         static_cast<int>(pairs), static_cast<int>(pairRows));
    return true;
  }
  copy(from.u + at + visible.left / 2, from.uvStride, picture.u, picture.uvStride, pairs, pairRows);
  copy(from.v + at + visible.left / 2, from.uvStride, picture.v, picture.uvStride, pairs, pairRows);
  return true;
}

}  // namespace codec::kernel
