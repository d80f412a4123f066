#ifndef TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H
#define TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace codec {

/// The parameter sets that an H.264 stream has shown so far, so that a fresh decoder can go on in
/// the middle of it.
class ParameterSets {
 public:
  void clear() { units_.clear(); }
  bool empty() const { return units_.empty(); }

  /// Takes the parameter sets out of Annex B bytes, or out of an avcC record.
  void add(const std::uint8_t* data, std::size_t size);

  /// All of them in Annex B, in the order in which they were last seen.
  std::vector<std::uint8_t> annexB() const;

  /// The size of the pictures in macroblocks of 16 x 16, as the last sequence parameter set tells
  /// it.
  /// @return false when there is none
  bool codedSize(unsigned& columns, unsigned& rows) const;

  /// Whether a picture may be coded arithmetically (CABAC).
  bool arithmeticCoding() const;

 private:
  using Unit = std::vector<std::uint8_t>;  // header byte and payload

  void addUnit(const std::uint8_t* data, std::size_t size);
  void addRecord(const std::uint8_t* data, std::size_t size);

  std::vector<Unit> units_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_PARAMETERSETS_H
