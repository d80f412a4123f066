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

  static const Kernels& Narrower() { return Vector::Narrower(); }
  static void Fence() { _mm_sfence(); }

  template <Stores stores>
  static void Store(std::uint8_t* destination, typename Vector::Type value) {
    if constexpr (stores == Stores::Streaming) {
      Vector::Stream(destination, value);
    } else {
      Vector::Store(destination, value);
    }
  }

  template <Stores stores>
  static void Planar(RowPair source, PlanarPair destination, std::size_t group) {
    const std::uint8_t* row = source.upper + 4 * group;
    const auto a = Vector::Load(row), b = Vector::Load(row + size);
    const auto c = Vector::Load(row + 2 * size), d = Vector::Load(row + 3 * size);
    Store<stores>(destination.upperLuma + 2 * group, Vector::Even(a, b));
    Store<stores>(destination.upperLuma + 2 * group + size, Vector::Even(c, d));
    const auto chromaLeft = Vector::Odd(a, b), chromaRight = Vector::Odd(c, d);
    Store<stores>(destination.u + group, Vector::Even(chromaLeft, chromaRight));
    Store<stores>(destination.v + group, Vector::Odd(chromaLeft, chromaRight));
    Luma<stores>(source.lower + 4 * group, destination.lowerLuma + 2 * group);
    Luma<stores>(source.lower + 4 * group + 2 * size, destination.lowerLuma + 2 * group + size);
  }

  template <Stores stores>
  static void SemiPlanar(RowPair source, SemiPlanarPair destination, std::size_t pixel) {
    const std::uint8_t* upper = source.upper + 2 * pixel;
    const std::uint8_t* lower = source.lower + 2 * pixel;
    const auto a = Vector::Load(upper), b = Vector::Load(upper + size);
    const auto c = Vector::Load(lower), d = Vector::Load(lower + size);
    Store<stores>(destination.upperLuma + pixel, Vector::Even(a, b));
    Store<stores>(destination.chroma + pixel, Vector::Odd(a, b));
    Store<stores>(destination.lowerLuma + pixel, Vector::Even(c, d));
  }

  template <Stores stores>
  static void Luma(const std::uint8_t* row, std::uint8_t* destination) {
    Store<stores>(destination, Vector::Even(Vector::Load(row), Vector::Load(row + size)));
  }
};

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_X86STEPS_H
