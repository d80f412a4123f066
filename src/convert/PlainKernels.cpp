#include "convert/Kernels.h"

namespace convert {
namespace {

void YuyvToPlanar(const PackedRows& source, const PlanarRows& destination, std::size_t pairs,
                  std::size_t groups, Stores) {
  for (std::size_t k = 0; k < pairs; ++k) {
    const std::uint8_t* upper = source.rows + 2 * k * source.pitch;
    const std::uint8_t* lower = upper + source.pitch;
    std::uint8_t* upperLuma = destination.luma + 2 * k * destination.stride;
    std::uint8_t* lowerLuma = upperLuma + destination.stride;
    std::uint8_t* u = destination.u + k * (destination.stride / 2);
    std::uint8_t* v = destination.v + k * (destination.stride / 2);
    for (std::size_t i = 0; i < groups; ++i) {
      upperLuma[2 * i] = upper[4 * i];
      upperLuma[2 * i + 1] = upper[4 * i + 2];
      u[i] = upper[4 * i + 1];
      v[i] = upper[4 * i + 3];
      lowerLuma[2 * i] = lower[4 * i];
      lowerLuma[2 * i + 1] = lower[4 * i + 2];
    }
  }
}

void YuyvToSemiPlanar(const PackedRows& source, const SemiPlanarRows& destination,
                      std::size_t pairs, std::size_t pixels, Stores) {
  for (std::size_t k = 0; k < pairs; ++k) {
    const std::uint8_t* upper = source.rows + 2 * k * source.pitch;
    const std::uint8_t* lower = upper + source.pitch;
    std::uint8_t* upperLuma = destination.luma + 2 * k * destination.stride;
    std::uint8_t* lowerLuma = upperLuma + destination.stride;
    std::uint8_t* chroma = destination.chroma + k * destination.stride;
    for (std::size_t j = 0; j < pixels; ++j) {
      upperLuma[j] = upper[2 * j];
      chroma[j] = upper[2 * j + 1];
      lowerLuma[j] = lower[2 * j];
    }
  }
}

}  // namespace

const Kernels plainKernels{"plain", YuyvToPlanar, YuyvToSemiPlanar};

}  // namespace convert
