#include "codec/ParameterSets.h"

#include <algorithm>

#include "codec/H264Bits.h"

namespace codec {

namespace {

/// A stream may have 32 sequence and 256 picture parameter sets; only garbage has more.
constexpr std::size_t mostUnits = 32 + 256;
constexpr std::uint8_t startCode[] = {0, 0, 0, 1};

unsigned typeOf(std::uint8_t header) {
  return header & 31;
}

}  // namespace

void ParameterSets::add(const std::uint8_t* data, std::size_t size) {
  // Annex B starts with zeros, an avcC record with its version.
  if (size >= 7 && data[0] == 1) {
    addRecord(data, size);
    return;
  }
  for (std::size_t header = nextNal(data, 0, size); header < size;) {
    const std::size_t next = nextNal(data, header + 1, size);
    const std::size_t end = next < size ? next - 3 : size;
    addUnit(data + header, end - header);
    header = next;
  }
}

void ParameterSets::addRecord(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 5;
  // First the count of sequence parameter sets in five bits, behind them that of picture
  // parameter sets in a byte.
  for (const unsigned mask : {31u, 255u}) {
    if (at >= size) return;
    for (unsigned left = data[at++] & mask; left > 0; --left) {
      if (size - at < 2) return;
      const std::size_t length = std::size_t{data[at]} << 8 | data[at + 1];
      at += 2;
      if (size - at < length) return;
      addUnit(data + at, length);
      at += length;
    }
  }
}

void ParameterSets::addUnit(const std::uint8_t* data, std::size_t size) {
  while (size > 0 && data[size - 1] == 0) --size;
  if (size < 2 || (typeOf(data[0]) != NalType::Sps && typeOf(data[0]) != NalType::Pps)) return;
  Unit unit(data, data + size);
  units_.erase(std::remove(units_.begin(), units_.end(), unit), units_.end());
  if (units_.size() >= mostUnits) units_.erase(units_.begin());
  units_.push_back(std::move(unit));
}

std::vector<std::uint8_t> ParameterSets::annexB() const {
  std::vector<std::uint8_t> all;
  for (const Unit& unit : units_) {
    all.insert(all.end(), std::begin(startCode), std::end(startCode));
    all.insert(all.end(), unit.begin(), unit.end());
  }
  return all;
}

bool ParameterSets::arithmeticCoding() const {
  return std::any_of(units_.begin(), units_.end(), [](const Unit& unit) {
    if (typeOf(unit[0]) != NalType::Pps) return false;
    BitReader bits(unit.data() + 1, unit.size() - 1);
    bits.ue();  // its own number
    bits.ue();  // its sequence parameter set's
    return bits.bit() == 1;
  });
}

}  // namespace codec
