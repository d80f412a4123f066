#ifndef TESSERA_PLATFORM_SRC_CODEC_SEQUENCESET_H
#define TESSERA_PLATFORM_SRC_CODEC_SEQUENCESET_H

#include <cstdint>
#include <vector>

namespace codec {

/// What the platform itself needs to know of an H.264 sequence parameter set.
struct SequenceSet {
  static constexpr unsigned mostIds = 32;

  unsigned id = 0;
  unsigned profile = 0;
  bool constrained = false;  ///< one of the first three constraint flags
  unsigned chromaFormat = 1;
  bool eightBits = true;
  bool separatePlanes = false;
  unsigned frameNumberBits = 4;
  unsigned columns = 0;  ///< of 16 x 16 macroblocks
  unsigned rows = 0;     ///< of a frame
  bool fields = false;   ///< pictures may be fields

  /// Pictures come out as 8-bit 4:2:0.
  bool supported() const { return chromaFormat <= 1 && eightBits; }

  /// @param unit  header byte and payload, as they stand in the stream
  /// @return false for a set that no decoder takes: values out of range, more pixels than memory
  bool parse(const std::vector<std::uint8_t>& unit);
};

/// The same of a picture parameter set.
struct PictureSet {
  static constexpr unsigned mostIds = 256;

  unsigned id = 0;
  unsigned sequenceId = 0;
  bool arithmeticCoding = false;

  /// Reads what stands before anything that depends on the sequence parameter set.
  bool parse(const std::vector<std::uint8_t>& unit);
  /// Whether the rest makes sense with that sequence parameter set.
  static bool fits(const std::vector<std::uint8_t>& unit, const SequenceSet& sequence);
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_SEQUENCESET_H
