#ifndef TESSERA_SRC_CONVERT_VECTORLOOPS_H
#define TESSERA_SRC_CONVERT_VECTORLOOPS_H

#include <cstddef>
#include <cstdint>

#include "convert/Kernels.h"

namespace convert {

/// The loops that all vector kernels share, over a `Steps` class that says what one step does:
///
///     static constexpr std::size_t planarGroups, semiPlanarPixels;   // converted by one step
///     static constexpr std::size_t alignment;                        // of a streaming store
///     static const Kernels& narrower();                              // for rows below one step
///     template <Stores> static void planar(RowPair, PlanarRows, std::size_t group);
///     template <Stores> static void semiPlanar(RowPair, SemiPlanarRows, std::size_t pixel);
///     static void fence();                                           // after streaming stores
///
/// `Steps` must live in an unnamed namespace: then so does all that is made here, and the linker
/// cannot take one kernel's code for another's with instructions that the processor lacks.
template <class Steps>
class VectorLoops {
 public:
  static void yuyvToPlanar(RowPair source, PlanarRows destination, std::size_t groups,
                           Stores stores) {
    constexpr std::size_t step = Steps::planarGroups;
    if (groups < step) {
      return Steps::narrower().yuyvToPlanar(source, destination, groups, stores);
    }
    std::size_t i = 0;
    const std::size_t first = toAlignment(destination.u);
    if (stores == Stores::Streaming && first + step <= groups && aligned(destination.v + first) &&
        aligned(destination.upperLuma + 2 * first) && aligned(destination.lowerLuma + 2 * first)) {
      Steps::template planar<Stores::Cached>(source, destination, 0);
      for (i = first; i + step <= groups; i += step) {
        Steps::template planar<Stores::Streaming>(source, destination, i);
      }
      Steps::fence();
    }
    for (; i + step <= groups; i += step) {
      Steps::template planar<Stores::Cached>(source, destination, i);
    }
    // What is left of the row is less than a step: one that overlaps the step before it.
    if (i < groups) Steps::template planar<Stores::Cached>(source, destination, groups - step);
  }

  static void yuyvToSemiPlanar(RowPair source, SemiPlanarRows destination, std::size_t pixels,
                               Stores stores) {
    constexpr std::size_t step = Steps::semiPlanarPixels;
    if (pixels < step) {
      return Steps::narrower().yuyvToSemiPlanar(source, destination, pixels, stores);
    }
    std::size_t i = 0;
    const std::size_t first = toAlignment(destination.chroma);
    if (stores == Stores::Streaming && first + step <= pixels &&
        aligned(destination.upperLuma + first) && aligned(destination.lowerLuma + first)) {
      Steps::template semiPlanar<Stores::Cached>(source, destination, 0);
      for (i = first; i + step <= pixels; i += step) {
        Steps::template semiPlanar<Stores::Streaming>(source, destination, i);
      }
      Steps::fence();
    }
    for (; i + step <= pixels; i += step) {
      Steps::template semiPlanar<Stores::Cached>(source, destination, i);
    }
    if (i < pixels) Steps::template semiPlanar<Stores::Cached>(source, destination, pixels - step);
  }

 private:
  static std::size_t toAlignment(const std::uint8_t* p) {
    return static_cast<std::size_t>(-reinterpret_cast<std::uintptr_t>(p) % Steps::alignment);
  }
  static bool aligned(const std::uint8_t* p) { return toAlignment(p) == 0; }
};

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_VECTORLOOPS_H
