#include <arm_neon.h>

#include "convert/VectorLoops.h"

namespace convert {
namespace {

/// Both ARM architectures. The structure loads take luma and chroma apart while they load.
struct Neon {
  static constexpr std::size_t planarGroups = 16;
  static constexpr std::size_t semiPlanarPixels = 16;
  static constexpr std::size_t alignment = 16;

  static const Kernels& narrower() { return plainKernels; }
  static void fence() {}

  template <Stores>
  static void planar(RowPair source, PlanarRows destination, std::size_t group) {
    const uint8x16x2_t left = vld2q_u8(source.upper + 4 * group);
    const uint8x16x2_t right = vld2q_u8(source.upper + 4 * group + 32);
    const uint8x16x2_t chroma = vuzpq_u8(left.val[1], right.val[1]);
    vst1q_u8(destination.upperLuma + 2 * group, left.val[0]);
    vst1q_u8(destination.upperLuma + 2 * group + 16, right.val[0]);
    vst1q_u8(destination.u + group, chroma.val[0]);
    vst1q_u8(destination.v + group, chroma.val[1]);
    luma(source.lower + 4 * group, destination.lowerLuma + 2 * group);
    luma(source.lower + 4 * group + 32, destination.lowerLuma + 2 * group + 16);
  }

  template <Stores>
  static void semiPlanar(RowPair source, SemiPlanarRows destination, std::size_t pixel) {
    const uint8x16x2_t upper = vld2q_u8(source.upper + 2 * pixel);
    vst1q_u8(destination.upperLuma + pixel, upper.val[0]);
    vst1q_u8(destination.chroma + pixel, upper.val[1]);
    luma(source.lower + 2 * pixel, destination.lowerLuma + pixel);
  }

  static void luma(const std::uint8_t* row, std::uint8_t* destination) {
    vst1q_u8(destination, vld2q_u8(row).val[0]);
  }
};

using Loops = VectorLoops<Neon>;

}  // namespace

const Kernels neonKernels{"neon", Loops::yuyvToPlanar, Loops::yuyvToSemiPlanar};

}  // namespace convert
