#include "codec/ParameterSets.h"

#include <algorithm>
#include <iterator>

#include "codec/H264Bits.h"

namespace codec {

namespace {

/// A stream may have 32 sequence and 256 picture parameter sets; only garbage has more.
constexpr std::size_t mostUnits = 32 + 256;
constexpr std::uint8_t startCode[] = {0, 0, 0, 1};

unsigned typeOf(std::uint8_t header) {
  return header & 31;
}

/// Profiles whose sequence parameter sets tell the format of the samples.
constexpr unsigned highProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128};

/// The unit's own bytes: a 3 behind two zeros is none of them.
std::vector<std::uint8_t> withoutPrevention(const std::vector<std::uint8_t>& unit) {
  std::vector<std::uint8_t> plain;
  unsigned zeros = 0;
  for (const std::uint8_t byte : unit) {
    const bool prevention = zeros >= 2 && byte == 3;
    zeros = byte == 0 ? zeros + 1 : 0;
    if (!prevention) plain.push_back(byte);
  }
  return plain;
}

void skipHighPart(BitReader& bits) {
  const unsigned chroma = bits.ue();
  if (chroma == 3) bits.bit();
  bits.ue();  // bit depths
  bits.ue();
  bits.bit();
  if (bits.bit() == 0) return;  // no scaling lists
  for (unsigned list = 0; list < (chroma == 3 ? 12u : 8u); ++list) {
    if (bits.bit() == 0) continue;
    int last = 8, next = 8;
    for (unsigned i = 0; i < (list < 6 ? 16u : 64u); ++i) {
      if (next != 0) {
        const std::uint32_t code = bits.ue();
        const int delta = static_cast<int>((code + 1) / 2) * (code % 2 == 1 ? 1 : -1);
        next = (last + delta + 256) % 256;
      }
      last = next == 0 ? last : next;
    }
  }
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

bool ParameterSets::codedSize(unsigned& columns, unsigned& rows) const {
  const auto sps = std::find_if(units_.rbegin(), units_.rend(),
                                [](const Unit& unit) { return typeOf(unit[0]) == NalType::Sps; });
  if (sps == units_.rend()) return false;
  const Unit plain = withoutPrevention(*sps);
  BitReader bits(plain.data() + 1, plain.size() - 1);
  const unsigned profile = bits.bits(8);
  bits.bits(16);  // constraints, level
  bits.ue();      // its own number
  if (std::find(std::begin(highProfiles), std::end(highProfiles), profile) !=
      std::end(highProfiles))
    skipHighPart(bits);
  bits.ue();  // length of frame numbers
  const unsigned order = bits.ue();
  if (order == 0) bits.ue();
  if (order == 1) {
    bits.bit();
    bits.ue();
    bits.ue();
    for (unsigned left = bits.ue(); left > 0 && !bits.overrun(); --left) bits.ue();
  }
  bits.ue();   // reference frames
  bits.bit();  // gaps in frame numbers
  const std::uint32_t width = bits.ue() + 1, units = bits.ue() + 1;
  const bool framesOnly = bits.bit() == 1;
  constexpr unsigned most = 4096;
  if (bits.overrun() || width > most || units > most) return false;
  columns = width;
  rows = framesOnly ? units : units * 2;
  return true;
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
