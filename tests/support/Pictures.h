#ifndef TESSERA_TESTS_SUPPORT_PICTURES_H
#define TESSERA_TESTS_SUPPORT_PICTURES_H

#include <cstdint>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;

/// An RGB picture, 3 bytes a pixel, no padding.
struct Image {
  int width = 0;
  int height = 0;
  Bytes rgb;

  const std::uint8_t* at(int x, int y) const {
    return &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
  }
};

/// A smooth moving scene with edges and a little fixed-seed noise: what a camera sees, roughly.
/// Frames t = 0, 1, 2, ... belong together.
Image scene(int width, int height, int t = 0);

/// Eight vertical bars: white, yellow, cyan, green, magenta, red, blue, black.
Image bars(int width, int height);

/// Uniform noise, different for each seed.
Image noise(int width, int height, unsigned seed);

/// One colour.
Image flat(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b);

/// Planar 4:2:0, no padding, chroma rounded up.
struct Yuv {
  int width = 0;
  int height = 0;
  Bytes y, u, v;

  int chromaWidth() const { return (width + 1) / 2; }
  int chromaHeight() const { return (height + 1) / 2; }
};

constexpr int round32(int value) {
  return (value + 31) & ~31;
}
constexpr int round16(int value) {
  return (value + 15) & ~15;
}

/// Full-range (JPEG) BT.601, chroma averaged over the pixels that it covers.
Yuv toYuv(const Image& image);
/// The first frames of scene().
std::vector<Yuv> scenes(int count, int width, int height);
/// Rows of `rowPixels` pixels and `rows` rows; edge pixels fill the padding. 0: no padding.
Bytes toYuyv(const Image& image, int rowPixels = 0, int rows = 0);
/// bits: 16 (565 little endian), 24 (R G B) or 32 (R G B 255).
Bytes toRgb(const Image& image, int bits, int rowPixels = 0, int rows = 0);

/// The padded layout of the codecs' ports: luma stride rounded to 32, rows to 16, chroma at half.
/// Edge samples fill the padding.
Bytes padded(const Yuv& picture);
Bytes takePlane(const std::uint8_t* from, int width, int height, std::ptrdiff_t stride);
/// The picture out of that layout.
Yuv unpadded(const std::uint8_t* data, int width, int height);

/// Of two runs of bytes; 99 where they are equal.
double psnr(const Bytes& a, const Bytes& b);
/// The worst plane of a series, as far as both go. Where what was seen is larger, the pictures' part of
/// it counts.
double worstPsnr(const std::vector<Yuv>& seen, const std::vector<Yuv>& pictures);
/// Largest difference between two runs of bytes of one length.
int maxDifference(const Bytes& a, const Bytes& b);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_PICTURES_H
