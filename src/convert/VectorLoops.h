#ifndef TESSERA_SRC_CONVERT_VECTORLOOPS_H
#define TESSERA_SRC_CONVERT_VECTORLOOPS_H

#include <cstddef>
#include <cstdint>

#include "convert/Kernels.h"

namespace convert {

/// A row of the source and the row below it.
struct RowPair {
  const std::uint8_t* upper;
  const std::uint8_t* lower;

  RowPair(const PackedRows& source, std::size_t k)
      : upper(source.rows + 2 * k * source.pitch), lower(upper + source.pitch) {}
};

/// Where a pair goes in planar 4:2:0.
struct PlanarPair {
  std::uint8_t* upperLuma;
  std::uint8_t* lowerLuma;
  std::uint8_t* u;
  std::uint8_t* v;

  PlanarPair(const PlanarRows& destination, std::size_t k)
      : upperLuma(destination.luma + 2 * k * destination.stride),
        lowerLuma(upperLuma + destination.stride),
        u(destination.u + k * (destination.stride / 2)),
        v(destination.v + k * (destination.stride / 2)) {}
};

/// Where a pair goes in NV12.
struct SemiPlanarPair {
  std::uint8_t* upperLuma;
  std::uint8_t* lowerLuma;
  std::uint8_t* chroma;

  SemiPlanarPair(const SemiPlanarRows& destination, std::size_t k)
      : upperLuma(destination.luma + 2 * k * destination.stride),
        lowerLuma(upperLuma + destination.stride),
        chroma(destination.chroma + k * destination.stride) {}
};

/// The loops that all vector kernels share, over a `Steps` class that says what one step does:
///
///     static constexpr std::size_t planarGroups, semiPlanarPixels;   // converted by one step
///     static constexpr std::size_t alignment;    // that streaming stores want; 0: there are none
///     static void Fence();                       // after streaming stores
///     static const Kernels& Narrower();          // for what is less than a step
///     template <Stores> static void Planar(RowPair, PlanarPair, std::size_t group);
///     template <Stores> static void SemiPlanar(RowPair, SemiPlanarPair, std::size_t pixel);
///
/// `Steps` must live in an unnamed namespace: then so does all that is made here, and the linker
/// cannot take one kernel's code for another's with instructions that the processor lacks.
template <class Steps>
class VectorLoops {
 public:
  static void YuyvToPlanar(const PackedRows& source, const PlanarRows& destination,
                           std::size_t pairs, std::size_t groups, Stores stores) {
    const std::uintptr_t places = Address(destination.luma) | Address(destination.u) |
                                  Address(destination.v) | destination.stride / 2;
    if (groups < Steps::planarGroups || NarrowerStreams(places, stores)) {
      return Steps::Narrower().yuyvToPlanar(source, destination, pairs, groups, stores);
    }
    const bool streaming = Streams(places, stores);
    for (std::size_t k = 0; k < pairs; ++k) {
      const RowPair from(source, k);
      const PlanarPair to(destination, k);
      const auto step = [from, to](auto kind, std::size_t i) {
        Steps::template Planar<decltype(kind)::stores>(from, to, i);
      };
      const auto rest = [&](std::size_t i) {
        Steps::Narrower().yuyvToPlanar(
            {from.upper + 4 * i, source.pitch},
            {to.upperLuma + 2 * i, to.u + i, to.v + i, destination.stride}, 1, groups - i,
            Stores::Cached);
      };
      Walk<Steps::planarGroups>(groups, streaming, step, rest);
    }
    if (streaming) Steps::Fence();
  }

  static void YuyvToSemiPlanar(const PackedRows& source, const SemiPlanarRows& destination,
                               std::size_t pairs, std::size_t pixels, Stores stores) {
    const std::uintptr_t places =
        Address(destination.luma) | Address(destination.chroma) | destination.stride;
    if (pixels < Steps::semiPlanarPixels || NarrowerStreams(places, stores)) {
      return Steps::Narrower().yuyvToSemiPlanar(source, destination, pairs, pixels, stores);
    }
    const bool streaming = Streams(places, stores);
    for (std::size_t k = 0; k < pairs; ++k) {
      const RowPair from(source, k);
      const SemiPlanarPair to(destination, k);
      const auto step = [from, to](auto kind, std::size_t j) {
        Steps::template SemiPlanar<decltype(kind)::stores>(from, to, j);
      };
      const auto rest = [&](std::size_t j) {
        Steps::Narrower().yuyvToSemiPlanar({from.upper + 2 * j, source.pitch},
                                           {to.upperLuma + j, to.chroma + j, destination.stride}, 1,
                                           pixels - j, Stores::Cached);
      };
      Walk<Steps::semiPlanarPixels>(pixels, streaming, step, rest);
    }
    if (streaming) Steps::Fence();
  }

 private:
  struct Cached {
    static constexpr Stores stores = Stores::Cached;
  };
  struct Streaming {
    static constexpr Stores stores = Stores::Streaming;
  };

  /// Converts `count` items, at least a step's worth, step by step. Those that are left at the end
  /// get a step that overlaps the one before it. When streaming they go to `rest` instead: to store
  /// one cache line both ways costs more than streaming saves.
  template <std::size_t size, class Step, class Rest>
  static void Walk(std::size_t count, bool streaming, const Step& step, const Rest& rest) {
    std::size_t i = 0;
    if (streaming) {
      for (; i + size <= count; i += size) step(Streaming{}, i);
      if (i < count) rest(i);
    } else {
      for (; i + size <= count; i += size) step(Cached{}, i);
      if (i < count) step(Cached{}, count - size);
    }
  }

  static std::uintptr_t Address(const std::uint8_t* p) {
    return reinterpret_cast<std::uintptr_t>(p);
  }

  static bool Streams(std::uintptr_t places, Stores stores) {
    if constexpr (Steps::alignment > 0) {
      return stores == Stores::Streaming && places % Steps::alignment == 0;
    }
    return false;
  }

  /// Whether only a narrower kernel can stream to these places. The narrowest needs multiples of
  /// 16, which malloc gives.
  static bool NarrowerStreams(std::uintptr_t places, Stores stores) {
    return Steps::alignment > 16 && stores == Stores::Streaming && !Streams(places, stores) &&
           places % 16 == 0;
  }
};

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_VECTORLOOPS_H
