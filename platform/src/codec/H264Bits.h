#ifndef TESSERA_PLATFORM_SRC_CODEC_H264BITS_H
#define TESSERA_PLATFORM_SRC_CODEC_H264BITS_H

#include <cstddef>
#include <cstdint>

namespace codec {

/// nal_unit_type of what the decoder looks at itself.
namespace NalType {
constexpr unsigned Slice = 1, SliceDataA = 2, IdrSlice = 5, Sei = 6, Sps = 7, Pps = 8,
                   Delimiter = 9, EndOfSequence = 10, EndOfStream = 11;
}

/// Index of the first NAL unit's header byte at or after `from` whose start code (three bytes)
/// lies wholly in data[0..size); `size` when there is none.
std::size_t nextNal(const std::uint8_t* data, std::size_t from, std::size_t size);

/// Reads the first fields of a NAL unit. Emulation prevention does not occur that early. Past the
/// end come zeros.
class BitReader {
 public:
  BitReader(const std::uint8_t* data, std::size_t size) : data_(data), end_(size * 8) {}

  unsigned bit();
  unsigned bits(unsigned count);
  /// An Exp-Golomb code of up to 32 bits.
  std::uint32_t ue();
  /// More bits were asked for than there are.
  bool overrun() const { return at_ > end_; }

 private:
  const std::uint8_t* data_;
  std::size_t end_;
  std::size_t at_ = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_H264BITS_H
