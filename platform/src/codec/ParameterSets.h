#ifndef TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H
#define TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "codec/SequenceSet.h"

namespace codec {

/// The parameter sets that an H.264 stream has shown so far, the last of each type and id, so that
/// a fresh decoder can go on in the middle of it.
class ParameterSets {
 public:
  /// What they tell of a slice.
  struct Slice {
    bool supported = true;  ///< or there is no telling
    bool field = false;     ///< is one's, or may be where its header is not whole
  };

  void clear();

  /// Takes the parameter sets out of Annex B bytes, or out of an avcC record.
  void add(const std::uint8_t* data, std::size_t size);

  /// Takes one NAL unit, from its header byte on.
  /// @return false for a parameter set that no decoder takes: better not shown to one
  bool addUnit(const std::uint8_t* data, std::size_t size);

  /// All of them in Annex B.
  std::vector<std::uint8_t> annexB() const;

  /// The largest size that a sequence parameter set has, in macroblocks of 16 x 16.
  /// @return false when there is none
  bool codedSize(unsigned& columns, unsigned& rows) const;

  /// Whether a picture may be coded arithmetically (CABAC).
  bool arithmeticCoding() const;

  /// @param data  a slice's NAL unit, from its header byte on; the first few bytes will do
  Slice lookAt(const std::uint8_t* data, std::size_t size) const;

 private:
  using Unit = std::vector<std::uint8_t>;  // header byte and payload
  template <typename Set>
  struct Kept {
    Unit unit;
    Set set;
  };

  void addRecord(const std::uint8_t* data, std::size_t size);
  bool addSequence(Unit unit);
  bool addPicture(Unit unit);

  std::map<unsigned, Kept<SequenceSet>> sequences_;
  std::map<unsigned, Kept<PictureSet>> pictures_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H
