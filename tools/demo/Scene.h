#ifndef TESSERA_TOOLS_DEMO_SCENE_H
#define TESSERA_TOOLS_DEMO_SCENE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace demo {

using Bytes = std::vector<unsigned char>;

constexpr int width = 1280;
constexpr int height = 720;

/// The padded size of the codecs' ports.
constexpr int stride = (width + 31) / 32 * 32;
constexpr int rows = (height + 15) / 16 * 16;
constexpr std::size_t lumaBytes = std::size_t{stride} * rows;
constexpr std::size_t pictureBytes = lumaBytes * 3 / 2;

/// Frame t of a moving scene: planar I420 in the padded layout.
Bytes i420(int t);

/// The same frame as packed YUYV, rows of the padded width.
Bytes yuyv(int t);

/// How close the visible luma of two padded I420 pictures is, in dB.
double lumaPsnr(const unsigned char* a, const unsigned char* b);

}  // namespace demo

#endif  // TESSERA_TOOLS_DEMO_SCENE_H
