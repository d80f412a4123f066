#include "support/MadeStream.h"

#include <random>

namespace made {
namespace {

constexpr std::uint8_t keySlice = 0x65, slice = 0x61, sequenceHeader = 0x67, pictureHeader = 0x68;
constexpr int mbBytes = 384, mbsOfFrame = 4, mbsOfField = 2;

void append(Bytes& to, const Bytes& from) {
  to.insert(to.end(), from.begin(), from.end());
}

struct Coded {
  char kind;
  bool key;
  bool second;  ///< field of its frame
  bool fields;  ///< may occur in the stream
  unsigned frameNumber;
};

Bytes sliceOf(const Coded& coded, int first, int count, std::mt19937& random) {
  BitWriter out;
  out.ue(static_cast<std::uint32_t>(first)).ue(7).ue(0).bits(coded.frameNumber, 4);
  if (coded.fields) out.bits(coded.kind != 'f', 1);
  if (coded.fields && coded.kind != 'f') out.bits(coded.kind == 'b', 1);
  const bool instant = coded.key && !coded.second;
  if (instant) out.ue(0);
  out.bits(0, instant ? 2 : 1).se(0).ue(1);
  for (int mb = 0; mb < count; ++mb) {
    out.ue(25).align(0);
    for (int i = 0; i < mbBytes; ++i) out.bits(16 + random() % 220, 8);
  }
  return out.nal(instant ? keySlice : slice);
}

}  // namespace

BitWriter& BitWriter::bits(std::uint32_t value, unsigned count) {
  while (count-- > 0) {
    if (used_ == 0) bytes_.push_back(0);
    bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (value >> count & 1) << (7 - used_));
    used_ = (used_ + 1) % 8;
  }
  return *this;
}

BitWriter& BitWriter::ue(std::uint32_t value) {
  unsigned length = 0;
  while ((value + 1) >> (length + 1) != 0) ++length;
  return bits(0, length).bits(value + 1, length + 1);
}

BitWriter& BitWriter::se(std::int32_t value) {
  return ue(value > 0 ? static_cast<std::uint32_t>(2 * value - 1)
                      : static_cast<std::uint32_t>(-2 * value));
}

BitWriter& BitWriter::align(unsigned bit) {
  while (used_ != 0) bits(bit, 1);
  return *this;
}

Bytes BitWriter::nal(std::uint8_t header) {
  bits(1, 1).align(0);
  Bytes unit{0, 0, 0, 1, header};
  int zeros = 0;
  for (const std::uint8_t byte : bytes_) {
    if (zeros >= 2 && byte <= 3) {
      unit.push_back(3);
      zeros = 0;
    }
    unit.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return unit;
}

Bytes sequenceSet(const Sequence& its) {
  BitWriter out;
  out.bits(its.profile, 8).bits(0, 8).bits(30, 8).ue(0);
  if (its.profile >= 100) {
    out.ue(its.chromaFormat).bits(0, its.chromaFormat == 3 ? 1 : 0);
    out.ue(its.bitDepth - 8).ue(its.bitDepth - 8).bits(0, 1);
    out.bits(its.firstDelta != 0, 1);
    if (its.firstDelta != 0) out.bits(1, 1).se(its.firstDelta);
  }
  const unsigned width = its.sizeInMbs != 0 ? its.sizeInMbs : side / 16;
  out.ue(0).ue(2).ue(1).bits(0, 1).ue(width - 1).ue((its.fields ? width / 2 : width) - 1);
  out.bits(!its.fields, 1);
  if (its.fields) out.bits(0, 1);
  return out.bits(1, 1).bits(0, 2).nal(sequenceHeader);
}

Bytes pictureSet(unsigned id, int quantiser) {
  BitWriter out;
  out.ue(id).ue(0).bits(0, 2).ue(0).ue(0).ue(0).bits(0, 3).se(quantiser).se(0).se(0).bits(4, 3);
  return out.nal(pictureHeader);
}

support::H264Made pictures(const std::string& letters, bool fields, int slices) {
  support::H264Made made;
  std::mt19937 random(11);
  Coded coded{0, false, false, fields, 0};
  for (const char letter : letters) {
    if (letter == 'i') {
      coded = {0, true, false, fields, 0};
      continue;
    }
    const bool first = coded.kind == 0;
    coded.second =
        !first && !coded.second && letter != 'f' && coded.kind != 'f' && letter != coded.kind;
    if (!first && !coded.second) {
      coded.key = false;
      coded.frameNumber = (coded.frameNumber + 1) % 16;
    }
    coded.kind = letter;
    made.units.push_back(made.stream.size());
    if (first) {
      append(made.stream, sequenceSet({fields}));
      append(made.stream, pictureSet(0));
    }
    const int mbs = letter == 'f' ? mbsOfFrame : mbsOfField;
    for (int at = 0; at < mbs; at += mbs / slices)
      append(made.stream, sliceOf(coded, at, mbs / slices, random));
  }
  made.units.push_back(made.stream.size());
  return made;
}

}  // namespace made
