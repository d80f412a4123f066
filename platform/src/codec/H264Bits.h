#ifndef TESSERA_PLATFORM_SRC_CODEC_H264BITS_H
#define TESSERA_PLATFORM_SRC_CODEC_H264BITS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace codec {

/// nal_unit_type of what the decoder looks at itself.
namespace NalType {
constexpr unsigned Slice = 1, SliceDataA = 2, IdrSlice = 5, Sei = 6, Sps = 7, Pps = 8,
                   Delimiter = 9, EndOfSequence = 10, EndOfStream = 11, Filler = 12;
}

/// Index of the first NAL unit's header byte at or after `from` whose start code (three bytes)
/// lies wholly in data[0..size); `size` when there is none.
std::size_t nextNal(const std::uint8_t* data, std::size_t from, std::size_t size);

/// The bytes without those that keep start codes out of a NAL unit.
std::vector<std::uint8_t> unescaped(const std::uint8_t* data, std::size_t size);

/// Reads the fields of a NAL unit. Past the end come zeros.
class BitReader {
 public:
  BitReader(const std::uint8_t* data, std::size_t size) : data_(data), bits_(size * 8) {}

  unsigned bit();
  /// An Exp-Golomb code of up to 32 bits.
  std::uint32_t ue();
  /// The signed kind.
  std::int64_t se();
  /// There is something before the bit that ends the NAL unit.
  bool more() const;
  /// More bits were asked for than there are.
  bool overrun() const { return at_ > bits_; }

 private:
  const std::uint8_t* data_;
  std::size_t bits_;
  std::size_t at_ = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_H264BITS_H
