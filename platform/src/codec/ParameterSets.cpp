#include "codec/ParameterSets.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "codec/H264Bits.h"

namespace codec {

namespace {

/// No parameter set is longer; only garbage is.
constexpr std::size_t longestUnit = 1 << 16;
/// Of a slice, what is looked at is in the first of its bytes.
constexpr std::size_t sliceHeader = 32;
constexpr std::uint8_t startCode[] = {0, 0, 0, 1};

unsigned typeOf(std::uint8_t header) {
  return header & 31;
}

void append(std::vector<std::uint8_t>& all, const std::vector<std::uint8_t>& unit) {
  all.insert(all.end(), std::begin(startCode), std::end(startCode));
  all.insert(all.end(), unit.begin(), unit.end());
}

}  // namespace

void ParameterSets::clear() {
  sequences_.clear();
  pictures_.clear();
}

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

bool ParameterSets::addUnit(const std::uint8_t* data, std::size_t size) {
  while (size > 0 && data[size - 1] == 0) --size;
  if (size < 2 || size > longestUnit) return true;
  if (typeOf(data[0]) == NalType::Sps) return addSequence(Unit(data, data + size));
  if (typeOf(data[0]) == NalType::Pps) return addPicture(Unit(data, data + size));
  return true;
}

/// Another one with the same number takes the picture parameter sets along that refer to it.
bool ParameterSets::addSequence(Unit unit) {
  SequenceSet set;
  if (!set.parse(unit)) return false;
  Kept<SequenceSet>& kept = sequences_[set.id];
  if (kept.unit == unit) return true;
  for (auto each = pictures_.begin(); each != pictures_.end();)
    each = each->second.set.sequenceId == set.id ? pictures_.erase(each) : std::next(each);
  kept = {std::move(unit), set};
  return true;
}

/// One whose sequence parameter set is not known is no decoder's business yet, and none takes it.
bool ParameterSets::addPicture(Unit unit) {
  PictureSet set;
  if (!set.parse(unit)) return false;
  const auto sequence = sequences_.find(set.sequenceId);
  if (sequence == sequences_.end()) return true;
  if (!PictureSet::fits(unit, sequence->second.set)) return false;
  pictures_[set.id] = {std::move(unit), set};
  return true;
}

std::vector<std::uint8_t> ParameterSets::annexB() const {
  std::vector<std::uint8_t> all;
  for (const auto& [id, kept] : sequences_) append(all, kept.unit);
  for (const auto& [id, kept] : pictures_) append(all, kept.unit);
  return all;
}

bool ParameterSets::codedSize(unsigned& columns, unsigned& rows) const {
  columns = rows = 0;
  for (const auto& [id, kept] : sequences_) {
    columns = std::max(columns, kept.set.columns);
    rows = std::max(rows, kept.set.rows);
  }
  return !sequences_.empty();
}

bool ParameterSets::arithmeticCoding() const {
  return std::any_of(pictures_.begin(), pictures_.end(),
                     [](const auto& each) { return each.second.set.arithmeticCoding; });
}

ParameterSets::Slice ParameterSets::lookAt(const std::uint8_t* data, std::size_t size) const {
  const Unit header = unescaped(data + 1, std::min(size - 1, sliceHeader));
  BitReader bits(header.data(), header.size());
  bits.ue();  // its first macroblock
  bits.ue();  // its type
  const auto picture = pictures_.find(bits.ue());
  if (picture == pictures_.end()) return {};
  const SequenceSet& sequence = sequences_.at(picture->second.set.sequenceId).set;
  if (!sequence.fields) return {sequence.supported(), false};
  const unsigned before = sequence.frameNumberBits + (sequence.separatePlanes ? 2 : 0);
  for (unsigned i = 0; i < before; ++i) bits.bit();
  const bool field = bits.bit() != 0;
  return {sequence.supported(), field || bits.overrun()};
}

}  // namespace codec
