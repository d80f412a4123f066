#ifndef TESSERA_TESTS_SUPPORT_MADESTREAM_H
#define TESSERA_TESTS_SUPPORT_MADESTREAM_H

#include <string>

#include "support/H264Oracle.h"

/// H.264 as x264 does not write it: 32 x 32 pixels of noise, uncoded (I_PCM).
namespace made {

using support::Bytes;

constexpr int side = 32;

/// Bits from the highest of each byte down.
class BitWriter {
 public:
  BitWriter& bits(std::uint32_t value, unsigned count);
  BitWriter& ue(std::uint32_t value);
  BitWriter& se(std::int32_t value);
  BitWriter& align(unsigned bit);
  /// A NAL unit with its start code and end.
  Bytes nal(std::uint8_t header);

 private:
  Bytes bytes_;
  unsigned used_ = 0;  ///< bits of the last byte
};

/// What may be wrong with a sequence parameter set.
struct Sequence {
  bool fields = false;
  unsigned profile = 77;
  unsigned chromaFormat = 1;
  unsigned bitDepth = 8;
  int firstDelta = 0;  ///< of a scaling list, where not 0
  unsigned sizeInMbs = 0;
};
Bytes sequenceSet(const Sequence& its);
Bytes pictureSet(unsigned id, int quantiser = 0);

/// One access unit for each letter: t top field, b bottom field, f frame; i before one makes it a
/// key picture with its parameter sets. Places as encodeH264 tells them.
support::H264Made pictures(const std::string& letters, bool fields, int slices = 1);

}  // namespace made

#endif  // TESSERA_TESTS_SUPPORT_MADESTREAM_H
