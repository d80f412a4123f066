#include "codec/cpu/H264History.h"

namespace codec {

namespace {

/// Units after which everything before a key frame has come out, or never will: twice the largest
/// decoded picture buffer, for fields.
constexpr std::size_t settled = 34;
/// Entries kept for the pictures that are still inside the decoder.
constexpr std::size_t keptEntries = 2 * settled;
constexpr std::size_t mostBytes = 8u << 20;
constexpr std::size_t mostEntries = 8192;

}  // namespace

void H264History::clear() {
  first_ += static_cast<std::int64_t>(entries_.size());
  entries_.clear();
  held_ = 0;
  recording_ = false;
  atStart_ = true;
}

void H264History::record(bool on) {
  if (wanted_ && !on) dropBytes();
  wanted_ = on;
}

void H264History::dropBytes() {
  for (Entry& entry : entries_) {
    entry.bytes = std::vector<std::uint8_t>();
    entry.restart = false;
  }
  held_ = 0;
  recording_ = false;
}

std::int64_t H264History::add(const AccessUnits::Unit& unit, std::int64_t pts, bool decodeOnly) {
  const bool restart = unit.keyFrame || atStart_;
  atStart_ = false;
  if (held_ + unit.size > mostBytes || entries_.size() > mostEntries) dropBytes();
  recording_ = wanted_ && (recording_ || restart);
  Entry entry;
  entry.pts = pts;
  entry.decodeOnly = decodeOnly;
  if (recording_) {
    entry.restart = restart;
    entry.bytes.assign(unit.data, unit.data + unit.size);
    held_ += unit.size;
  }
  entries_.push_back(std::move(entry));
  prune();
  return first_ + static_cast<std::int64_t>(entries_.size()) - 1;
}

void H264History::dropLast() {
  if (entries_.empty()) return;
  held_ -= entries_.back().bytes.size();
  // Whatever made it a place to start from also holds for what comes in its stead.
  atStart_ = entries_.back().restart;
  entries_.pop_back();
}

void H264History::prune() {
  std::size_t drop = 0;
  if (recording_) {
    for (std::size_t i = entries_.size() > settled ? entries_.size() - settled : 0; i > 0; --i)
      if (entries_[i].restart) {
        drop = i;
        break;
      }
  } else if (entries_.size() > keptEntries) {
    drop = entries_.size() - keptEntries;
  }
  for (; drop > 0; --drop) {
    held_ -= entries_.front().bytes.size();
    entries_.pop_front();
    ++first_;
  }
}

H264History::Entry* H264History::find(std::int64_t serial) {
  if (serial < first_ || serial - first_ >= static_cast<std::int64_t>(entries_.size()))
    return nullptr;
  return &entries_[static_cast<std::size_t>(serial - first_)];
}

H264History::Range H264History::restartable() const {
  const std::int64_t end = first_ + static_cast<std::int64_t>(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i)
    if (entries_[i].restart) return {first_ + static_cast<std::int64_t>(i), end};
  return {end, end};
}

}  // namespace codec
