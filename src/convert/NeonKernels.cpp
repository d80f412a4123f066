#include <arm_neon.h>

#include "convert/VectorLoops.h"

namespace convert {
namespace {

/// Both ARM architectures. All loads of a step come before its stores: in-order cores then wait for
/// memory once a step, not once a load.
struct NeonSteps {
  static constexpr std::size_t planarGroups = 16;
  static constexpr std::size_t semiPlanarPixels = 32;
  static constexpr std::size_t alignment = 0;

  static const Kernels& Narrower() { return plainKernels; }
  static void Fence() {}

  template <Stores>
  static void Planar(RowPair source, PlanarPair destination, std::size_t group) {
    const uint8x16x2_t left = TakeApart(source.upper + 4 * group);
    const uint8x16x2_t right = TakeApart(source.upper + 4 * group + 32);
    const uint8x16x2_t lowerLeft = TakeApart(source.lower + 4 * group);
    const uint8x16x2_t lowerRight = TakeApart(source.lower + 4 * group + 32);
    vst1q_u8(destination.upperLuma + 2 * group, left.val[0]);
    vst1q_u8(destination.upperLuma + 2 * group + 16, right.val[0]);
    vst1q_u8(destination.lowerLuma + 2 * group, lowerLeft.val[0]);
    vst1q_u8(destination.lowerLuma + 2 * group + 16, lowerRight.val[0]);
    const uint8x16x2_t chroma = vuzpq_u8(left.val[1], right.val[1]);
    vst1q_u8(destination.u + group, chroma.val[0]);
    vst1q_u8(destination.v + group, chroma.val[1]);
  }

  template <Stores>
  static void SemiPlanar(RowPair source, SemiPlanarPair destination, std::size_t pixel) {
    const uint8x16x2_t left = vld2q_u8(source.upper + 2 * pixel);
    const uint8x16x2_t right = vld2q_u8(source.upper + 2 * pixel + 32);
    const uint8x16x2_t lowerLeft = vld2q_u8(source.lower + 2 * pixel);
    const uint8x16x2_t lowerRight = vld2q_u8(source.lower + 2 * pixel + 32);
    vst1q_u8(destination.upperLuma + pixel, left.val[0]);
    vst1q_u8(destination.upperLuma + pixel + 16, right.val[0]);
    vst1q_u8(destination.chroma + pixel, left.val[1]);
    vst1q_u8(destination.chroma + pixel + 16, right.val[1]);
    vst1q_u8(destination.lowerLuma + pixel, lowerLeft.val[0]);
    vst1q_u8(destination.lowerLuma + pixel + 16, lowerRight.val[0]);
  }

  /// 16 luma and 16 chroma bytes. Where chroma is unzipped anyway, 64-bit in-order cores do better
  /// without structure loads.
  static uint8x16x2_t TakeApart(const std::uint8_t* row) {
#if defined(__aarch64__)
    return vuzpq_u8(vld1q_u8(row), vld1q_u8(row + 16));
#else
    return vld2q_u8(row);
#endif
  }
};

using Loops = VectorLoops<NeonSteps>;

}  // namespace

const Kernels neonKernels{"neon", Loops::YuyvToPlanar, Loops::YuyvToSemiPlanar};

}  // namespace convert
