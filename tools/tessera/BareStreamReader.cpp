#include "BareStreamReader.h"

#include <tessera/Basics.h>

#include <algorithm>
#include <chrono>

namespace tool {
namespace {

constexpr std::size_t chunk = 256 * 1024;
/// How far into a stream its first parameter sets are looked for.
constexpr std::size_t farthest = 1024 * 1024;
/// Beyond this an access unit without an end is garbage, and goes to the decoder as it is.
constexpr std::size_t largestUnit = 16 * 1024 * 1024;
/// A pause after which what has come of a picture counts as all of it. Where it was not, the
/// decoder puts the rest to it.
constexpr std::chrono::milliseconds pause{8};

}  // namespace

bool BareStreamReader::recognises(InputFile& input) {
  const std::vector<std::uint8_t>& start = input.peek(5);
  const std::size_t at = tessera::annexb::NextUnit(start.data(), start.size(), 0);
  if (at > 4 || at >= start.size() || (start[at] & 0x80)) return false;
  const int type = tessera::annexb::TypeOf(start.data(), at);
  return type == 1 || (type >= 5 && type <= 9);
}

BareStreamReader::BareStreamReader(InputFile& input)
    : input_(input), headers_(input.name()), start_(input.position()) {
  using namespace tessera::annexb;
  // The set must be whole: what follows it has begun.
  const auto isWhole = [this] {
    std::size_t unit = NextUnit(buffer_.data(), buffer_.size(), 0);
    while (unit < buffer_.size() &&
           TypeOf(buffer_.data(), unit) != tessera::annexb::SequenceParameters)
      unit = NextUnit(buffer_.data(), buffer_.size(), unit);
    return NextUnit(buffer_.data(), buffer_.size(), unit) < buffer_.size();
  };
  while (!isWhole() && buffer_.size() < farthest && readMore()) {
  }
  const auto parameters = tool::SequenceParameters::find(buffer_.data(), buffer_.size());
  if (!parameters) return;
  info_.rate = parameters->rate.value_or(info_.rate);
  info_.aspect = parameters->aspect;
  info_.fullRange = parameters->fullRange;
  info_.reorder = parameters->reorder;
}

/// @return false at the end of the input
bool BareStreamReader::readMore() {
  if (begin_ > buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
  const std::size_t old = buffer_.size();
  buffer_.resize(old + chunk);
  const std::size_t got = ended_ ? 0 : input_.readSome(&buffer_[old], chunk);
  buffer_.resize(old + got);
  ended_ = got == 0;
  return !ended_;
}

/// Of the access unit at begin_; 0 where there is none any more.
std::size_t BareStreamReader::findEnd() {
  for (;;) {
    const std::size_t end = tessera::AccessUnitEnd(buffer_.data(), buffer_.size(), begin_);
    if (end < buffer_.size() || end - begin_ > largestUnit) return end;
    const bool paused = !input_.length() && begin_ < end && !input_.waitForData(pause) &&
                        tessera::HasPicture(&buffer_[begin_], end - begin_);
    if (paused) return end;
    if (!readMore()) return begin_ < buffer_.size() ? buffer_.size() : 0;
  }
}

bool BareStreamReader::next(AccessUnit& unit) {
  const std::size_t end = findEnd();
  if (end == 0) return false;
  unit = {};
  unit.data = &buffer_[begin_];
  unit.size = end - begin_;
  unit.picture = size_;
  headers_.read(unit);
  size_ = unit.picture;
  begin_ = end;
  reached_ += unit.size;
  return true;
}

std::optional<double> BareStreamReader::fraction() const {
  if (!input_.length()) return std::nullopt;
  return std::min(1.0,
                  static_cast<double>(start_ + reached_) / static_cast<double>(*input_.length()));
}

}  // namespace tool
