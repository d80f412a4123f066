#include "AnnexB.h"

#include <algorithm>
#include <cstring>

namespace tool {
namespace {

enum NalType : std::uint8_t { Slice = 1, KeySlice = 5, Sei = 6, ParameterSet = 7, Delimiter = 9 };

/// Offset of the NAL unit's first byte after the next start code at or after `from`; `size` where
/// there is none.
std::size_t nextNal(const std::uint8_t* data, std::size_t size, std::size_t from) {
  while (from + 3 < size) {
    const void* found = std::memchr(data + from, 1, size - 1 - from);
    if (!found) break;
    const auto one = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - data);
    if (one >= 2 && data[one - 1] == 0 && data[one - 2] == 0) return one + 1;
    from = one + 1;
  }
  return size;
}

std::uint8_t typeAt(const std::uint8_t* data, std::size_t at) {
  return data[at] & 0x1F;
}

}  // namespace

bool hasSlice(const std::uint8_t* data, std::size_t size) {
  for (std::size_t at = nextNal(data, size, 0); at < size; at = nextNal(data, size, at)) {
    const std::uint8_t type = typeAt(data, at);
    if (type >= Slice && type <= KeySlice) return true;
  }
  return false;
}

bool startsFrame(const std::uint8_t* data, std::size_t size) {
  const std::size_t at = nextNal(data, size, 0);
  if (at >= size || at > 4) return false;
  const std::uint8_t type = typeAt(data, at);
  if (type >= Sei && type <= Delimiter) return true;
  // The slice header's first bit is set where it starts at the picture's first macroblock.
  return (type == Slice || type == KeySlice) && at + 1 < size && (data[at + 1] & 0x80);
}

FrameJoiner::State FrameJoiner::judge(std::size_t size) {
  lastPiece_ = size;
  if (!hasSlice(frame_.data(), frame_.size())) return state_ = State::Open;
  if (full_ > 0) return state_ = size < full_ ? State::Complete : State::InDoubt;
  return state_ = size < whole_ ? State::Complete : State::InDoubt;
}

FrameJoiner::State FrameJoiner::add(const std::uint8_t* data, std::size_t size) {
  if (state_ == State::InDoubt) {
    if (startsFrame(data, size)) {
      kept_.assign(data, data + size);
      return nothingCame();
    }
    full_ = lastPiece_;
  }
  frame_.insert(frame_.end(), data, data + size);
  return judge(size);
}

FrameJoiner::State FrameJoiner::nothingCame() {
  if (full_ == 0) whole_ = std::max(whole_, lastPiece_ + 1);
  return state_ = State::Complete;
}

std::vector<std::uint8_t> FrameJoiner::take() {
  std::vector<std::uint8_t> result;
  result.swap(frame_);
  state_ = State::Open;
  if (!kept_.empty()) {
    frame_.swap(kept_);
    judge(frame_.size());
  }
  return result;
}

}  // namespace tool
