#include "codec/H264Bits.h"

#include <algorithm>
#include <cstring>

namespace codec {

std::size_t nextNal(const std::uint8_t* data, std::size_t from, std::size_t size) {
  std::size_t at = std::max<std::size_t>(from, 3);
  while (at < size) {
    const void* hit = std::memchr(data + at - 1, 1, size - at);
    if (hit == nullptr) break;
    at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data) + 1;
    if (data[at - 2] == 0 && data[at - 3] == 0) return at;
    ++at;
  }
  return size;
}

std::vector<std::uint8_t> unescaped(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> plain;
  unsigned zeros = 0;
  for (std::size_t i = 0; i < size; ++i) {
    const bool escape = zeros >= 2 && data[i] == 3;
    zeros = data[i] == 0 ? zeros + 1 : 0;
    if (!escape) plain.push_back(data[i]);
  }
  return plain;
}

unsigned BitReader::bit() {
  const std::size_t at = at_++;
  return at < bits_ ? data_[at / 8] >> (7 - at % 8) & 1 : 0;
}

std::uint32_t BitReader::ue() {
  unsigned zeros = 0;
  while (zeros < 31 && bit() == 0) ++zeros;
  std::uint32_t value = 1;
  for (unsigned i = 0; i < zeros; ++i) value = value << 1 | bit();
  return value - 1;
}

std::int64_t BitReader::se() {
  const std::int64_t code = ue();
  return code % 2 != 0 ? (code + 1) / 2 : -(code / 2);
}

bool BitReader::more() const {
  std::size_t last = bits_;
  while (last > at_ && (data_[(last - 1) / 8] >> (7 - (last - 1) % 8) & 1) == 0) --last;
  return last > at_ + 1;
}

}  // namespace codec
