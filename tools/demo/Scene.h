#ifndef TESSERA_TOOLS_DEMO_SCENE_H
#define TESSERA_TOOLS_DEMO_SCENE_H

#include <tessera/Basics.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace demo {

using Bytes = std::vector<unsigned char>;

constexpr int width = 1280;
constexpr int height = 720;

/// The padded size of the codecs' ports.
constexpr int stride = tessera::PaddedWidth(width);
constexpr int rows = tessera::PaddedHeight(height);
constexpr std::size_t lumaBytes = std::size_t{stride} * rows;
constexpr std::size_t pictureBytes = tessera::PaddedSize(width, height);

/// Frame t of a moving scene: planar I420 in the padded layout.
Bytes i420(int t);

/// The same frame as packed YUYV, rows of the padded width.
Bytes yuyv(int t);

/// How close the visible luma of two padded I420 pictures is, in dB.
double lumaPsnr(const unsigned char* a, const unsigned char* b);

}  // namespace demo

#endif  // TESSERA_TOOLS_DEMO_SCENE_H
