#include "Content.h"

#include <libyuv.h>
#include <tessera/Basics.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace bench {
namespace {

constexpr std::size_t boundary = 64;
constexpr int textureSide = 256;

std::uint32_t hash(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  std::uint32_t h = a * 0x9E3779B1u ^ b * 0x85EBCA77u ^ c * 0xC2B2AE3Du;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  return h ^ h >> 12;
}

/// A tile of smooth texture, from -32 to 31: what walls, leaves and faces look like to a codec.
const std::vector<int>& texture() {
  static const std::vector<int> tile = [] {
    std::vector<int> made(textureSide * textureSide);
    const auto sample = [](int x, int y) {
      return static_cast<int>(hash(x % textureSide, y % textureSide, 1) % 64) - 32;
    };
    for (int y = 0; y < textureSide; ++y) {
      for (int x = 0; x < textureSide; ++x) {
        int sum = 0;
        for (int k = 0; k < 16; ++k) sum += sample(x + k % 4, y + k / 4);
        made[y * textureSide + x] = sum / 6;
      }
    }
    return made;
  }();
  return tile;
}

std::uint8_t luma(int x, int y, int width, int height, int t) {
  const int gradient = 60 + 80 * x / width + 60 * y / height;
  const int drift = texture()[(y + t) % textureSide * textureSide + (x + 3 * t) % textureSide];
  // A bright disc on its way through the picture.
  const int dx = x - (width / 4 + 4 * t), dy = y - height / 2;
  const bool disc = dx * dx + dy * dy < height * height / 25;
  const int noise = static_cast<int>(hash(x, y, 100 + t) % 5) - 2;
  return static_cast<std::uint8_t>(std::clamp(gradient + drift + (disc ? 50 : 0) + noise, 16, 235));
}

std::uint8_t chroma(int x, int y, int width, int height, int t, int plane) {
  const int across = plane == 0 ? 40 * x / width : 40 * y / height;
  const int drift =
      texture()[(y + t + 64 * plane) % textureSide * textureSide + (x + t) % textureSide];
  return static_cast<std::uint8_t>(108 + across + drift / 4);
}

/// Repeats the last column and row of a plane up to its padded size.
template <class Sample>
void fillPlane(std::uint8_t* plane, int stride, int rows, int width, int height, Sample sample) {
  for (int y = 0; y < rows; ++y) {
    std::uint8_t* row = plane + static_cast<std::size_t>(y) * stride;
    if (y >= height) {
      std::memcpy(row, row - stride, static_cast<std::size_t>(stride));
      continue;
    }
    for (int x = 0; x < width; ++x) row[x] = sample(x, y);
    std::memset(row + width, row[width - 1], static_cast<std::size_t>(stride - width));
  }
}

void repeatLastRow(Buffer& picture, std::size_t rowBytes, int height, int rows) {
  for (int y = height; y < rows; ++y) {
    std::uint8_t* row = picture.data() + static_cast<std::size_t>(y) * rowBytes;
    std::memcpy(row, row - rowBytes, rowBytes);
  }
}

}  // namespace

Buffer::Buffer(std::size_t size) : size_(size) {
  void* made = std::aligned_alloc(boundary, (size + boundary - 1) / boundary * boundary);
  if (made == nullptr) throw std::bad_alloc();
  bytes_.reset(static_cast<std::uint8_t*>(made));
  std::memset(made, 0, size);
}

Buffer::Buffer(const Buffer& other) : Buffer(other.size_) {
  std::memcpy(data(), other.data(), size_);
}

void Buffer::Free::operator()(std::uint8_t* bytes) const {
  std::free(bytes);
}

Buffer sceneI420(int width, int height, int t) {
  Buffer picture(tessera::PaddedSize(width, height));
  const int stride = tessera::PaddedWidth(width), rows = tessera::PaddedHeight(height);
  std::uint8_t* u = picture.data() + static_cast<std::size_t>(stride) * rows;
  std::uint8_t* v = u + static_cast<std::size_t>(stride) * rows / 4;
  fillPlane(picture.data(), stride, rows, width, height,
            [&](int x, int y) { return luma(x, y, width, height, t); });
  fillPlane(u, stride / 2, rows / 2, width / 2, height / 2,
            [&](int x, int y) { return chroma(x, y, width / 2, height / 2, t, 0); });
  fillPlane(v, stride / 2, rows / 2, width / 2, height / 2,
            [&](int x, int y) { return chroma(x, y, width / 2, height / 2, t, 1); });
  return picture;
}

Buffer sceneYuyv(int width, int height, int rows, int t) {
  const Buffer planar = sceneI420(width, height, t);
  Buffer packed(static_cast<std::size_t>(2) * width * rows);
  const int stride = tessera::PaddedWidth(width);
  const std::uint8_t* u =
      planar.data() + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height);
  const std::uint8_t* v = u + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height) / 4;
  libyuv::I420ToYUY2(planar.data(), stride, u, stride / 2, v, stride / 2, packed.data(), 2 * width,
                     width, height);
  repeatLastRow(packed, static_cast<std::size_t>(2) * width, height, rows);
  return packed;
}

Buffer sceneRgb32(int width, int height, int rows, ByteOrder order) {
  const Buffer planar = sceneI420(width, height, 0);
  Buffer packed(static_cast<std::size_t>(4) * width * rows);
  const int stride = tessera::PaddedWidth(width);
  const std::uint8_t* u =
      planar.data() + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height);
  const std::uint8_t* v = u + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height) / 4;
  // libyuv names 32-bit words, highest byte first; in memory ABGR is R, G, B, A.
  const auto convert = order == ByteOrder::Rgba ? libyuv::I420ToABGR : libyuv::I420ToARGB;
  convert(planar.data(), stride, u, stride / 2, v, stride / 2, packed.data(), 4 * width, width,
          height);
  repeatLastRow(packed, static_cast<std::size_t>(4) * width, height, rows);
  return packed;
}

}  // namespace bench
