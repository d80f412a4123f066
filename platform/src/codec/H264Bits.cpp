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

unsigned BitReader::bit() {
  const std::size_t at = at_++;
  return at < end_ ? data_[at / 8] >> (7 - at % 8) & 1 : 0;
}

unsigned BitReader::bits(unsigned count) {
  unsigned value = 0;
  while (count-- > 0) value = value << 1 | bit();
  return value;
}

std::uint32_t BitReader::ue() {
  unsigned zeros = 0;
  while (zeros < 31 && bit() == 0) ++zeros;
  std::uint32_t value = 1;
  for (unsigned i = 0; i < zeros; ++i) value = value << 1 | bit();
  return value - 1;
}

}  // namespace codec
