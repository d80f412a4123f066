#include "convert/Kernels.h"

namespace convert {
namespace {

void yuyvToPlanar(RowPair source, PlanarRows destination, std::size_t groups, Stores) {
  for (std::size_t i = 0; i < groups; ++i) {
    destination.upperLuma[2 * i] = source.upper[4 * i];
    destination.upperLuma[2 * i + 1] = source.upper[4 * i + 2];
    destination.u[i] = source.upper[4 * i + 1];
    destination.v[i] = source.upper[4 * i + 3];
    destination.lowerLuma[2 * i] = source.lower[4 * i];
    destination.lowerLuma[2 * i + 1] = source.lower[4 * i + 2];
  }
}

void yuyvToSemiPlanar(RowPair source, SemiPlanarRows destination, std::size_t pixels, Stores) {
  for (std::size_t j = 0; j < pixels; ++j) {
    destination.upperLuma[j] = source.upper[2 * j];
    destination.chroma[j] = source.upper[2 * j + 1];
    destination.lowerLuma[j] = source.lower[2 * j];
  }
}

}  // namespace

const Kernels plainKernels{"plain", yuyvToPlanar, yuyvToSemiPlanar};

}  // namespace convert
