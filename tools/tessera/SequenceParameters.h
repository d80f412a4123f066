#ifndef TESSERA_TOOLS_SEQUENCEPARAMETERS_H
#define TESSERA_TOOLS_SEQUENCEPARAMETERS_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "FrameSource.h"

namespace tool {

/// What a sequence parameter set tells that is not needed to cut the stream, but to describe it.
struct SequenceParameters {
  std::optional<Ratio> rate;  ///< frames a second
  Ratio aspect{1, 1};
  bool fullRange = false;
  int reorder = 0;  ///< pictures that a decoder may hold back; the most, where it is not told
  unsigned frameNumBits = 4;
  bool gapsAllowed = false;

  /// @param data  Annex B. @return the first set in it; empty without a readable one
  static std::optional<SequenceParameters> find(const std::uint8_t* data, std::size_t size);
};

/// The number that a slice gives its frame. @param unit  a slice's NAL unit
unsigned frameNumber(const std::uint8_t* unit, std::size_t size, unsigned frameNumBits);

}  // namespace tool

#endif  // TESSERA_TOOLS_SEQUENCEPARAMETERS_H
