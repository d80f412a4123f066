#include "Scene.h"

#include <algorithm>
#include <cmath>

namespace demo {
namespace {

unsigned char clamp(double value) {
  return static_cast<unsigned char>(std::clamp(std::lround(value), 0L, 255L));
}

/// Hills, a chequered floor that moves, and a ball that crosses it.
double luma(int x, int y, int t) {
  const double ballX = 100 + 16.0 * t, ballY = 360 - 180 * std::fabs(std::sin(t / 9.0));
  const double far = std::hypot(x - ballX, y - ballY);
  if (far < 90) return 230 - far;
  const double hill = 300 + 60 * std::sin((x + 4 * t) / 140.0) + 20 * std::sin(x / 37.0);
  if (y < hill) return 200 - y / 6.0;
  const bool tile = ((x + 6 * t) / 64 + y / 48) % 2 == 0;
  const unsigned grain =
      (static_cast<unsigned>(x) * 2654435761u ^ static_cast<unsigned>(y) * 40503u);
  return (tile ? 120 : 70) + (grain >> 13 & 7);
}

double blue(int x, int y, int t) {
  return 128 + 50 * std::cos((x - 3 * t) / 210.0) - y / 24.0;
}
double red(int x, int y, int t) {
  return 128 + 45 * std::sin((y + 2 * t) / 160.0) + x / 48.0 - 13;
}

}  // namespace

Bytes i420(int t) {
  Bytes frame(pictureBytes, 128);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      frame[static_cast<std::size_t>(y) * stride + x] = clamp(luma(x, y, t));
  unsigned char* const u = frame.data() + lumaBytes;
  unsigned char* const v = u + lumaBytes / 4;
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) {
      const std::size_t at = static_cast<std::size_t>(y) * (stride / 2) + x;
      u[at] = clamp(blue(2 * x, 2 * y, t));
      v[at] = clamp(red(2 * x, 2 * y, t));
    }
  return frame;
}

Bytes yuyv(int t) {
  Bytes frame(std::size_t{stride} * rows * 2, 128);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; x += 2) {
      unsigned char* const p = &frame[(static_cast<std::size_t>(y) * stride + x) * 2];
      p[0] = clamp(luma(x, y, t));
      p[1] = clamp(blue(x, y, t));
      p[2] = clamp(luma(x + 1, y, t));
      p[3] = clamp(red(x, y, t));
    }
  return frame;
}

double lumaPsnr(const unsigned char* a, const unsigned char* b) {
  double sum = 0;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const int d =
          a[static_cast<std::size_t>(y) * stride + x] - b[static_cast<std::size_t>(y) * stride + x];
      sum += d * d;
    }
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * width * height / sum);
}

}  // namespace demo
