#include "codec/AccessUnits.h"

#include <algorithm>

#include "codec/H264Bits.h"

namespace codec {

namespace {

/// Beyond this a unit without an end is garbage.
constexpr std::size_t largestUnit = 16u << 20;
/// As many slices as 1080p has macroblocks, and what goes with them. Decoders keep something for
/// each, so that a flood of tiny ones must end somewhere.
constexpr unsigned mostNals = 8192 + 64;

}  // namespace

void AccessUnits::clear() {
  bytes_.clear();
  base_ = 0;
  begin_ = scan_ = 0;
  current_ = Unit();
}

void AccessUnits::add(const std::uint8_t* data, std::size_t size) {
  if (begin_ > bytes_.size() / 2) {
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
    base_ += begin_;
    scan_ -= begin_;
    begin_ = 0;
  }
  bytes_.insert(bytes_.end(), data, data + size);
}

std::size_t AccessUnits::index(std::uint64_t position) const {
  return static_cast<std::size_t>(
      std::min<std::uint64_t>(position < base_ ? 0 : position - base_, bytes_.size()));
}

AccessUnits::Verdict AccessUnits::judge(std::size_t header, std::size_t limit, bool final) {
  const unsigned type = bytes_[header] & 31;
  if (current_.nals >= mostNals) return Verdict::Begins;
  if (type == NalType::EndOfSequence || type == NalType::EndOfStream) return Verdict::EndOfSequence;
  if (type >= NalType::Sei && type <= NalType::Delimiter) {
    if (current_.picture) return Verdict::Begins;
    current_.parameterSets = current_.parameterSets || type == NalType::Sps || type == NalType::Pps;
  } else if (type == NalType::Slice || type == NalType::SliceDataA || type == NalType::IdrSlice) {
    BitReader bits(bytes_.data() + header + 1, limit - header - 1);
    const std::uint32_t mb = bits.ue();
    if (bits.overrun() && !final) return Verdict::Unknown;
    if (current_.picture && mb <= lastMb_) return Verdict::Begins;
    current_.picture = true;
    current_.keyFrame = current_.keyFrame || type == NalType::IdrSlice;
    lastMb_ = mb;
  }
  return Verdict::Belongs;
}

AccessUnits::Unit AccessUnits::cut(std::size_t end) {
  Unit unit = current_;
  unit.data = bytes_.data() + begin_;
  unit.size = end - begin_;
  unit.begin = base_ + begin_;
  if (unit.header == 0) unit.header = unit.begin;
  begin_ = end;
  current_ = Unit();
  return unit;
}

bool AccessUnits::take(std::uint64_t limit, bool final, Unit& unit) {
  const std::size_t end = index(limit);
  for (;; ++scan_) {
    // The start code must be the current unit's own.
    const std::size_t header = nextNal(bytes_.data(), std::max(scan_, begin_ + 3), end);
    if (header >= end) break;
    scan_ = header;
    const Verdict verdict = judge(header, end, final);
    if (verdict == Verdict::Unknown) return false;
    std::size_t start = header - 3;
    if (start > begin_ && bytes_[start - 1] == 0) --start;
    const bool ends = verdict == Verdict::Begins || verdict == Verdict::EndOfSequence;
    if (ends && current_.header != 0) {
      unit = cut(start);
      return true;
    }
    if (current_.header == 0) current_.header = base_ + header;
    ++current_.nals;
    if (verdict == Verdict::EndOfSequence) {
      current_.endOfSequence = true;
      unit = cut(header + 1);
      scan_ = begin_;
      return true;
    }
  }
  scan_ = std::max(scan_, end);
  if ((final || end - begin_ > largestUnit) && end > begin_) {
    unit = cut(end);
    scan_ = begin_;
    return true;
  }
  return false;
}

AccessUnits::Unit AccessUnits::pending(std::uint64_t limit) const {
  Unit unit = current_;
  unit.data = bytes_.data() + begin_;
  unit.size = std::max(index(limit), begin_) - begin_;
  unit.begin = base_ + begin_;
  return unit;
}

void AccessUnits::hide(std::uint64_t header) {
  const std::size_t at = index(header);
  if (at < bytes_.size()) bytes_[at] = static_cast<std::uint8_t>(NalType::Filler);
}

bool AccessUnits::onlyZeros(std::uint64_t from, std::uint64_t to) const {
  const auto first = bytes_.begin() + static_cast<std::ptrdiff_t>(index(std::min(from, to)));
  const auto last = bytes_.begin() + static_cast<std::ptrdiff_t>(index(std::max(from, to)));
  return std::all_of(first, last, [](std::uint8_t byte) { return byte == 0; });
}

bool AccessUnits::startCodeAt(std::uint64_t position, std::uint64_t limit) const {
  std::size_t at = index(position);
  const std::size_t first = at, end = index(limit);
  while (at < end && bytes_[at] == 0) ++at;
  return at >= first + 2 && at < end && bytes_[at] == 1;
}

}  // namespace codec
