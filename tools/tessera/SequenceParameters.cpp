#include "SequenceParameters.h"

#include <tessera/Basics.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <vector>

namespace tool {
namespace {

/// Reads a NAL unit's payload; beyond its end everything is zero.
class BitReader {
 public:
  /// Without the header byte and the bytes that only keep start codes out.
  BitReader(const std::uint8_t* unit, std::size_t size) {
    for (std::size_t i = 1; i < size; ++i) {
      const bool escape = i >= 3 && unit[i] == 3 && unit[i - 1] == 0 && unit[i - 2] == 0;
      if (!escape) bytes_.push_back(unit[i]);
    }
  }

  unsigned bits(unsigned count) {
    unsigned value = 0;
    for (; count > 0; --count, ++at_) {
      const unsigned byte = at_ / 8 < bytes_.size() ? bytes_[at_ / 8] : 0;
      value = value << 1 | (byte >> (7 - at_ % 8) & 1);
    }
    return value;
  }
  bool flag() { return bits(1) != 0; }
  void skip(unsigned count) { at_ += count; }
  /// Exp-Golomb.
  unsigned number() {
    unsigned zeros = 0;
    while (zeros < 31 && !flag()) ++zeros;
    return (1u << zeros) - 1 + bits(zeros);
  }
  int signedNumber() {
    const unsigned value = number();
    return value % 2 ? static_cast<int>(value / 2 + 1) : -static_cast<int>(value / 2);
  }
  bool overrun() const { return at_ > bytes_.size() * 8; }

 private:
  std::vector<std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

void skipScalingLists(BitReader& in, unsigned lists) {
  for (unsigned i = 0; i < lists; ++i) {
    if (!in.flag()) continue;
    int last = 8, next = 8;
    for (int j = 0; j < (i < 6 ? 16 : 64); ++j) {
      if (next != 0) next = (last + in.signedNumber() + 256) % 256;
      last = next == 0 ? last : next;
    }
  }
}

void skipProfileExtras(BitReader& in, unsigned profile) {
  constexpr unsigned high[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
  if (std::find(std::begin(high), std::end(high), profile) == std::end(high)) return;
  const unsigned chroma = in.number();
  if (chroma == 3) in.skip(1);
  in.number();
  in.number();
  in.skip(1);
  if (in.flag()) skipScalingLists(in, chroma == 3 ? 12 : 8);
}

/// @return the type of picture order count; 2 means that pictures come in their order
unsigned skipOrder(BitReader& in) {
  const unsigned type = in.number();
  if (type == 0) in.number();
  if (type == 1) {
    in.skip(1);
    in.signedNumber();
    in.signedNumber();
    for (unsigned i = std::min(in.number(), 255u); i > 0; --i) in.signedNumber();
  }
  return type;
}

void readAspect(BitReader& in, SequenceParameters& set) {
  constexpr Ratio known[] = {{1, 1},   {1, 1},    {12, 11}, {10, 11}, {16, 11}, {40, 33},
                             {24, 11}, {20, 11},  {32, 11}, {80, 33}, {18, 11}, {15, 11},
                             {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};
  constexpr unsigned written = 255;
  const unsigned index = in.bits(8);
  if (index < std::size(known)) set.aspect = known[index];
  if (index != written) return;
  const Ratio aspect{in.bits(16), in.bits(16)};
  if (aspect.num > 0 && aspect.den > 0) set.aspect = aspect;
}

void skipBufferModel(BitReader& in) {
  const unsigned entries = std::min(in.number(), 31u) + 1;
  in.skip(8);
  for (unsigned i = 0; i < entries; ++i) {
    in.number();
    in.number();
    in.skip(1);
  }
  in.skip(20);
}

void readUsability(BitReader& in, SequenceParameters& set) {
  if (in.flag()) readAspect(in, set);
  if (in.flag()) in.skip(1);
  if (in.flag()) {
    in.skip(3);
    set.fullRange = in.flag();
    if (in.flag()) in.skip(24);
  }
  if (in.flag()) {
    in.number();
    in.number();
  }
  if (in.flag()) {
    const unsigned tick = in.bits(32), scale = in.bits(32);
    in.skip(1);
    // A frame is two fields, and a tick is a field.
    if (tick > 0 && tick < 1u << 30 && scale > 0) {
      const unsigned common = std::gcd(scale, 2 * tick);
      set.rate = Ratio{scale / common, 2 * tick / common};
    }
  }
  const bool nal = in.flag();
  if (nal) skipBufferModel(in);
  const bool video = in.flag();
  if (video) skipBufferModel(in);
  if (nal || video) in.skip(1);
  in.skip(1);
  if (!in.flag()) return;
  in.skip(1);
  for (int i = 0; i < 4; ++i) in.number();
  const int reorder = static_cast<int>(std::min(in.number(), 16u));
  if (!in.overrun()) set.reorder = reorder;
}

std::optional<SequenceParameters> read(const std::uint8_t* unit, std::size_t size) {
  BitReader in(unit, size);
  SequenceParameters set;
  const unsigned profile = in.bits(8);
  in.skip(16);
  in.number();
  skipProfileExtras(in, profile);
  set.frameNumBits = std::min(in.number(), 12u) + 4;
  const bool inOrder = skipOrder(in) == 2 || profile == 66;
  const unsigned references = in.number();
  set.reorder = inOrder ? 0 : static_cast<int>(std::clamp(references, 1u, 16u));
  set.gapsAllowed = in.flag();
  in.number();
  in.number();
  if (!in.flag()) in.skip(1);
  in.skip(1);
  if (in.flag())
    for (int i = 0; i < 4; ++i) in.number();
  if (in.overrun()) return std::nullopt;
  if (in.flag()) readUsability(in, set);
  return set;
}

}  // namespace

std::optional<SequenceParameters> SequenceParameters::find(const std::uint8_t* data,
                                                           std::size_t size) {
  using namespace tessera::annexb;
  for (std::size_t unit = NextUnit(data, size, 0); unit < size;) {
    const std::size_t next = NextUnit(data, size, unit);
    if (TypeOf(data, unit) == tessera::annexb::SequenceParameters)
      return read(data + unit, (next < size ? next - 3 : size) - unit);
    unit = next;
  }
  return std::nullopt;
}

unsigned frameNumber(const std::uint8_t* unit, std::size_t size, unsigned frameNumBits) {
  constexpr std::size_t enough = 32;
  BitReader in(unit, std::min(size, enough));
  in.number();
  in.number();
  in.number();
  return in.bits(frameNumBits);
}

}  // namespace tool
