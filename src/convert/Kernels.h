#ifndef TESSERA_SRC_CONVERT_KERNELS_H
#define TESSERA_SRC_CONVERT_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace convert {

/// A row of packed 4:2:2 and the row below it: what 4:2:0 shares its chroma between.
struct RowPair {
  const std::uint8_t* upper;
  const std::uint8_t* lower;
};

/// Where a row pair goes in planar 4:2:0.
struct PlanarRows {
  std::uint8_t* upperLuma;
  std::uint8_t* lowerLuma;
  std::uint8_t* u;
  std::uint8_t* v;
};

/// Where a row pair goes in NV12.
struct SemiPlanarRows {
  std::uint8_t* upperLuma;
  std::uint8_t* lowerLuma;
  std::uint8_t* chroma;
};

/// Streaming stores go past the caches: faster where the picture would not fit in them anyway,
/// slower for whoever reads it next where it would. A wish: kernels that cannot, or not to these
/// addresses, store as usual.
enum class Stores { Cached, Streaming };

/// One implementation of the inner loops. Every one of them gives the bytes of the plain one and
/// touches no byte outside the rows, whatever their lengths and alignment.
struct Kernels {
  const char* name;

  /// `groups` groups of Y0 U Y1 V a row: 2 * groups luma bytes a row, groups bytes of U and of V.
  void (*yuyvToPlanar)(RowPair source, PlanarRows destination, std::size_t groups, Stores stores);

  /// `pixels` byte pairs of luma and chroma a row: pixels luma bytes a row, pixels chroma bytes.
  void (*yuyvToSemiPlanar)(RowPair source, SemiPlanarRows destination, std::size_t pixels,
                           Stores stores);
};

/// The loops' definition, for every processor.
extern const Kernels plainKernels;

/// The vector kernels, each in a file that is compiled for its instructions. Only Dispatch.cpp
/// names them: calling one that the processor lacks ends the process.
extern const Kernels sse2Kernels;
extern const Kernels avx2Kernels;
extern const Kernels avx512Kernels;
extern const Kernels neonKernels;

/// The kernels in use.
const Kernels& activeKernels();

/// The implementations that this processor can run, the plain one first and the best last.
/// @param count  receives how many there are, at least 1
const Kernels* const* runnableKernels(std::size_t& count);

/// Uses these kernels from now on; null goes back to the best ones. For tests and measurements:
/// not while another thread converts.
void forceKernels(const Kernels* kernels);

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_KERNELS_H
