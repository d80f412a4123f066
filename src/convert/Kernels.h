#ifndef TESSERA_SRC_CONVERT_KERNELS_H
#define TESSERA_SRC_CONVERT_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace convert {

/// Packed 4:2:2, from its first row on. Rows come in pairs, since 4:2:0 has one chroma row for two.
struct PackedRows {
  const std::uint8_t* rows;
  std::size_t pitch;
};

/// Planar 4:2:0: chroma rows are half the luma stride apart.
struct PlanarRows {
  std::uint8_t* luma;
  std::uint8_t* u;
  std::uint8_t* v;
  std::size_t stride;
};

/// NV12: luma and chroma rows share one stride.
struct SemiPlanarRows {
  std::uint8_t* luma;
  std::uint8_t* chroma;
  std::size_t stride;
};

/// Streaming stores go past the caches: faster where the picture would not fit in them anyway,
/// slower for whoever reads it next where it would. A kernel that has none, or not for these
/// addresses, stores as usual.
enum class Stores { Cached, Streaming };

/// One implementation of the inner loops. Every one of them gives the bytes of the plain one and
/// touches no byte outside the rows, whatever their lengths and alignment.
struct Kernels {
  const char* name;

  /// `groups` groups of Y0 U Y1 V a row: 2 * groups luma bytes a row, groups bytes of U and of V a
  /// pair.
  void (*yuyvToPlanar)(const PackedRows& source, const PlanarRows& destination, std::size_t pairs,
                       std::size_t groups, Stores stores);

  /// `pixels` byte pairs of luma and chroma a row: pixels luma bytes a row, pixels chroma bytes a
  /// pair.
  void (*yuyvToSemiPlanar)(const PackedRows& source, const SemiPlanarRows& destination,
                           std::size_t pairs, std::size_t pixels, Stores stores);
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
const Kernels& ActiveKernels();

/// The implementations that this processor can run, the plain one first and the best last.
/// @param count  receives how many there are, at least 1
const Kernels* const* RunnableKernels(std::size_t& count);

/// Uses these kernels from now on; null goes back to the best ones. For tests and measurements:
/// not while another thread converts.
void ForceKernels(const Kernels* kernels);

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_KERNELS_H
