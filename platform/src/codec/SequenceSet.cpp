#include "codec/SequenceSet.h"

#include <climits>

#include "codec/H264Bits.h"

namespace codec {

namespace {

constexpr unsigned shortLists = 6, shortListSize = 16, longListSize = 64;
constexpr std::int64_t largestDelta = 127, smallestDelta = -128;

bool hasHighFields(unsigned profile) {
  for (const unsigned each : {100, 110, 122, 244, 44, 83, 86, 118, 128, 144})
    if (profile == each) return true;
  return false;
}

bool readList(BitReader& bits, unsigned size) {
  if (bits.bit() == 0) return true;
  int last = 8;
  for (unsigned i = 0; i < size; ++i) {
    const std::int64_t delta = bits.se();
    if (delta < smallestDelta || delta > largestDelta) return false;
    const auto next = static_cast<int>((last + delta) & 0xff);
    if (next == 0) return true;
    last = next;
  }
  return true;
}

/// libavcodec is not shown a wrong list: it complains on the application's standard error.
bool readLists(BitReader& bits, unsigned longLists) {
  if (bits.bit() == 0) return true;
  for (unsigned i = 0; i < shortLists + longLists; ++i)
    if (!readList(bits, i < shortLists ? shortListSize : longListSize)) return false;
  return true;
}

unsigned longListsOf(unsigned chromaFormat) {
  return chromaFormat == 3 ? 6 : 2;
}

/// Steps over how pictures are put in order.
void skipOrder(BitReader& bits) {
  const std::uint32_t type = bits.ue();
  if (type == 0) bits.ue();
  if (type != 1) return;
  bits.bit();
  bits.se();
  bits.se();
  const std::uint32_t cycle = bits.ue();
  for (std::uint32_t i = 0; i < cycle && !bits.overrun(); ++i) bits.se();
}

/// Nor a size that it cannot allocate.
bool sizeFits(std::uint64_t widthInMbs, std::uint64_t heightInMbs) {
  const std::uint64_t stride = 8 * 16 * widthInMbs + 1024, rows = 16 * heightInMbs + 128;
  return stride < INT_MAX && rows < INT_MAX && stride * rows < INT_MAX;
}

}  // namespace

bool SequenceSet::parse(const std::vector<std::uint8_t>& unit) {
  const std::vector<std::uint8_t> payload = unescaped(unit.data() + 1, unit.size() - 1);
  if (payload.size() < 4) return false;
  profile = payload[0];
  constrained = (payload[1] & 0xe0) != 0;
  BitReader bits(payload.data() + 3, payload.size() - 3);
  id = bits.ue();
  if (id >= mostIds) return false;
  if (hasHighFields(profile)) {
    chromaFormat = bits.ue();
    if (chromaFormat == 3) separatePlanes = bits.bit() != 0;
    const std::uint32_t lumaBits = bits.ue(), chromaBits = bits.ue();
    eightBits = lumaBits == 0 && chromaBits == 0;
    bits.bit();  // lossless where the quantiser is 0
    if (!readLists(bits, longListsOf(chromaFormat))) return false;
  }
  frameNumberBits = bits.ue() + 4;
  skipOrder(bits);
  bits.ue();  // reference pictures
  bits.bit();
  const std::uint64_t width = bits.ue() + std::uint64_t{1}, units = bits.ue() + std::uint64_t{1};
  fields = bits.bit() == 0;
  const std::uint64_t height = fields ? 2 * units : units;
  columns = static_cast<unsigned>(width);
  rows = static_cast<unsigned>(height);
  return frameNumberBits <= 16 && sizeFits(width, height);
}

bool PictureSet::parse(const std::vector<std::uint8_t>& unit) {
  BitReader bits(unit.data() + 1, unit.size() - 1);
  id = bits.ue();
  sequenceId = bits.ue();
  arithmeticCoding = bits.bit() != 0;
  return id < mostIds && sequenceId < SequenceSet::mostIds;
}

bool PictureSet::fits(const std::vector<std::uint8_t>& unit, const SequenceSet& sequence) {
  const std::vector<std::uint8_t> payload = unescaped(unit.data() + 1, unit.size() - 1);
  BitReader bits(payload.data(), payload.size());
  bits.ue();
  bits.ue();
  bits.bit();
  bits.bit();
  if (bits.ue() > 0) return true;  // slice groups, which libavcodec refuses by itself
  bits.ue();
  bits.ue();
  for (int i = 0; i < 3; ++i) bits.bit();  // weights
  for (int i = 0; i < 3; ++i) bits.se();   // quantisers
  for (int i = 0; i < 3; ++i) bits.bit();
  const bool simple = sequence.constrained &&
                      (sequence.profile == 66 || sequence.profile == 77 || sequence.profile == 88);
  if (simple || !bits.more()) return true;
  const bool transform8x8 = bits.bit() != 0;
  return readLists(bits, transform8x8 ? longListsOf(sequence.chromaFormat) : 0);
}

}  // namespace codec
