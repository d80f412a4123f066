#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_CHROMAFOLD_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_CHROMAFOLD_H

#include <cstddef>
#include <cstdint>

namespace codec {

/// How many samples of a component stand for how many pixels of the picture along one axis.
struct Ratio {
  unsigned samples = 1;
  unsigned pixels = 1;
};

/// A band of decoded rows of one component.
struct Band {
  std::uint8_t* rows = nullptr;  ///< may be written up to the next multiple of two samples
  std::size_t stride = 0;
  unsigned width = 0;  ///< samples that the picture covers
  unsigned height = 0;
};

/// Where folded rows go: one sample for each `unit` x `unit` pixels.
struct FoldTarget {
  std::uint8_t* rows = nullptr;
  std::size_t stride = 0;
  unsigned width = 0;
  unsigned height = 0;
  unsigned unit = 2;
};

/// Averages the samples of the band that lie under each target sample, or repeats the one that
/// does. The band starts at a target row's first pixel.
void fold(const Band& band, Ratio across, Ratio down, const FoldTarget& target);

/// Two rows (or one, twice) of R G B pixels to two rows of luma and one of chroma, full-range
/// BT.601.
void foldRgb(const std::uint8_t* upper, const std::uint8_t* lower, unsigned width,
             std::uint8_t* yUpper, std::uint8_t* yLower, std::uint8_t* u, std::uint8_t* v);

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_CHROMAFOLD_H
