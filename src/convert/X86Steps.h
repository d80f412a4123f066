#ifndef TESSERA_SRC_CONVERT_X86STEPS_H
#define TESSERA_SRC_CONVERT_X86STEPS_H

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#include "convert/VectorLoops.h"

namespace convert {

/// One step of each conversion in terms of a `Vector`: how to load and store one, and how to take
/// the even or the odd bytes of two neighbours, in order. See VectorLoops for the unnamed namespace
/// that it has to live in.
template <class Vector>
struct X86Steps {
  static constexpr std::size_t size = sizeof(typename Vector::Type);
  static constexpr std::size_t planarGroups = size;
  static constexpr std::size_t semiPlanarPixels = size;
  static constexpr std::size_t alignment = size;

  static const Kernels& narrower() { return Vector::narrower(); }
  static void fence() { _mm_sfence(); }

  template <Stores stores>
  static void store(std::uint8_t* destination, typename Vector::Type value) {
    if constexpr (stores == Stores::Streaming) {
      Vector::stream(destination, value);
    } else {
      Vector::store(destination, value);
    }
  }

  template <Stores stores>
  static void planar(RowPair source, PlanarPair destination, std::size_t group) {
    const std::uint8_t* row = source.upper + 4 * group;
    const auto a = Vector::load(row), b = Vector::load(row + size);
    const auto c = Vector::load(row + 2 * size), d = Vector::load(row + 3 * size);
    store<stores>(destination.upperLuma + 2 * group, Vector::even(a, b));
    store<stores>(destination.upperLuma + 2 * group + size, Vector::even(c, d));
    const auto chromaLeft = Vector::odd(a, b), chromaRight = Vector::odd(c, d);
    store<stores>(destination.u + group, Vector::even(chromaLeft, chromaRight));
    store<stores>(destination.v + group, Vector::odd(chromaLeft, chromaRight));
    luma<stores>(source.lower + 4 * group, destination.lowerLuma + 2 * group);
    luma<stores>(source.lower + 4 * group + 2 * size, destination.lowerLuma + 2 * group + size);
  }

  template <Stores stores>
  static void semiPlanar(RowPair source, SemiPlanarPair destination, std::size_t pixel) {
    const std::uint8_t* upper = source.upper + 2 * pixel;
    const std::uint8_t* lower = source.lower + 2 * pixel;
    const auto a = Vector::load(upper), b = Vector::load(upper + size);
    const auto c = Vector::load(lower), d = Vector::load(lower + size);
    store<stores>(destination.upperLuma + pixel, Vector::even(a, b));
    store<stores>(destination.chroma + pixel, Vector::odd(a, b));
    store<stores>(destination.lowerLuma + pixel, Vector::even(c, d));
  }

  template <Stores stores>
  static void luma(const std::uint8_t* row, std::uint8_t* destination) {
    store<stores>(destination, Vector::even(Vector::load(row), Vector::load(row + size)));
  }
};

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_X86STEPS_H
