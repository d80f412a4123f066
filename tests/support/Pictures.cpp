#include "support/Pictures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

namespace support {
namespace {

std::uint8_t clamp(double value) {
  return static_cast<std::uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

struct Sample {
  double y, u, v;
};

Sample toSample(const std::uint8_t* p) {
  const double r = p[0], g = p[1], b = p[2];
  return {0.299 * r + 0.587 * g + 0.114 * b, 128 - 0.168736 * r - 0.331264 * g + 0.5 * b,
          128 + 0.5 * r - 0.418688 * g - 0.081312 * b};
}

template <typename Pixel>
Image paint(int width, int height, Pixel pixel) {
  Image image{width, height, Bytes(static_cast<std::size_t>(width) * height * 3)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      pixel(x, y, &image.rgb[(static_cast<std::size_t>(y) * width + x) * 3]);
  return image;
}

/// The pixel at x, y, or the nearest one on the edge.
const std::uint8_t* edge(const Image& image, int x, int y) {
  return image.at(std::min(x, image.width - 1), std::min(y, image.height - 1));
}

void addPadded(Bytes& to, const Bytes& plane, int width, int height, int stride, int rows) {
  for (int y = 0; y < rows; ++y)
    for (int x = 0; x < stride; ++x)
      to.push_back(plane[static_cast<std::size_t>(std::min(y, height - 1)) * width +
                         std::min(x, width - 1)]);
}

}  // namespace

Image scene(int width, int height, int t) {
  std::mt19937 random(1234u + static_cast<unsigned>(t));
  return paint(width, height, [&](int x, int y, std::uint8_t* p) {
    const double u = (x + 3.0 * t) / 40.0, v = (y + 1.5 * t) / 31.0;
    const bool box = (x + 4 * t) / 48 % 3 == 0 && (y / 40) % 2 == 0;
    const double grain = static_cast<int>(random() % 7) - 3;
    p[0] = clamp(128 + 80 * std::sin(u) + (box ? 30 : 0) + grain);
    p[1] = clamp(110 + 70 * std::sin(v + 1) + 20 * std::cos(u * v / 3) + grain);
    p[2] = clamp(140 + 60 * std::cos(u - v) - (box ? 40 : 0) + grain);
  });
}

Image bars(int width, int height) {
  static const std::uint8_t colours[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255},
                                             {0, 255, 0},     {255, 0, 255}, {255, 0, 0},
                                             {0, 0, 255},     {0, 0, 0}};
  return paint(width, height,
               [&](int x, int, std::uint8_t* p) { std::copy_n(colours[x * 8 / width], 3, p); });
}

Image noise(int width, int height, unsigned seed) {
  std::mt19937 random(seed);
  return paint(width, height, [&](int, int, std::uint8_t* p) {
    for (int c = 0; c < 3; ++c) p[c] = static_cast<std::uint8_t>(random() >> 13);
  });
}

Image flat(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
  return paint(width, height, [&](int, int, std::uint8_t* p) { p[0] = r, p[1] = g, p[2] = b; });
}

Yuv toYuv(const Image& image) {
  Yuv yuv{image.width, image.height, {}, {}, {}};
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x) yuv.y.push_back(clamp(toSample(image.at(x, y)).y));
  for (int y = 0; y < image.height; y += 2)
    for (int x = 0; x < image.width; x += 2) {
      double u = 0, v = 0;
      for (int i = 0; i < 4; ++i) {
        const Sample s = toSample(edge(image, x + (i & 1), y + (i >> 1)));
        u += s.u / 4, v += s.v / 4;
      }
      yuv.u.push_back(clamp(u));
      yuv.v.push_back(clamp(v));
    }
  return yuv;
}

std::vector<Yuv> scenes(int count, int width, int height) {
  std::vector<Yuv> pictures;
  for (int t = 0; t < count; ++t) pictures.push_back(toYuv(scene(width, height, t)));
  return pictures;
}

Bytes toYuyv(const Image& image, int rowPixels, int rows) {
  Bytes out;
  for (int y = 0; y < std::max(rows, image.height); ++y)
    for (int x = 0; x < std::max(rowPixels, image.width); x += 2) {
      const Sample a = toSample(edge(image, x, y)), b = toSample(edge(image, x + 1, y));
      for (const double value : {a.y, (a.u + b.u) / 2, b.y, (a.v + b.v) / 2})
        out.push_back(clamp(value));
    }
  return out;
}

Bytes toRgb(const Image& image, int bits, int rowPixels, int rows) {
  Bytes out;
  for (int y = 0; y < std::max(rows, image.height); ++y)
    for (int x = 0; x < std::max(rowPixels, image.width); ++x) {
      const std::uint8_t* p = edge(image, x, y);
      if (bits == 16) {
        const unsigned word = (p[0] >> 3 << 11) | (p[1] >> 2 << 5) | p[2] >> 3;
        out.push_back(static_cast<std::uint8_t>(word & 255));
        out.push_back(static_cast<std::uint8_t>(word >> 8));
      } else {
        out.insert(out.end(), p, p + 3);
        if (bits == 32) out.push_back(255);
      }
    }
  return out;
}

Bytes padded(const Yuv& p) {
  const int stride = round32(p.width), rows = round16(p.height);
  Bytes out;
  addPadded(out, p.y, p.width, p.height, stride, rows);
  for (const Bytes& plane : {p.u, p.v})
    addPadded(out, plane, p.chromaWidth(), p.chromaHeight(), stride / 2, rows / 2);
  return out;
}

Bytes takePlane(const std::uint8_t* from, int width, int height, std::ptrdiff_t stride) {
  Bytes plane;
  for (int row = 0; row < height; ++row, from += stride)
    plane.insert(plane.end(), from, from + width);
  return plane;
}

Yuv unpadded(const std::uint8_t* data, int width, int height) {
  const int stride = round32(width), rows = round16(height);
  const std::uint8_t* const u = data + static_cast<std::size_t>(stride) * rows;
  Yuv yuv{width, height, takePlane(data, width, height, stride), {}, {}};
  yuv.u = takePlane(u, yuv.chromaWidth(), yuv.chromaHeight(), stride / 2);
  yuv.v = takePlane(u + static_cast<std::size_t>(stride) * rows / 4, yuv.chromaWidth(),
                    yuv.chromaHeight(), stride / 2);
  return yuv;
}

double psnr(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size() || a.empty()) return 0;
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  if (sum == 0) return 99;
  return 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / sum);
}

double worstPsnr(const std::vector<Yuv>& seen, const std::vector<Yuv>& pictures) {
  double worst = 99;
  for (std::size_t i = 0; i < std::min(seen.size(), pictures.size()); ++i) {
    const Yuv &its = seen[i], &whole = pictures[i];
    if (its.width < whole.width || its.height < whole.height) return 0;
    worst = std::min(
        {worst, psnr(takePlane(its.y.data(), whole.width, whole.height, its.width), whole.y),
         psnr(takePlane(its.u.data(), whole.chromaWidth(), whole.chromaHeight(), its.chromaWidth()),
              whole.u),
         psnr(takePlane(its.v.data(), whole.chromaWidth(), whole.chromaHeight(), its.chromaWidth()),
              whole.v)});
  }
  return worst;
}

int maxDifference(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) return 256;
  int most = 0;
  for (std::size_t i = 0; i < a.size(); ++i) most = std::max(most, std::abs(a[i] - b[i]));
  return most;
}

}  // namespace support
