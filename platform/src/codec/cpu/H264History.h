#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264HISTORY_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264HISTORY_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "codec/AccessUnits.h"

namespace codec {

/// The access units that went into the decoder lately: what belongs to the pictures that come out,
/// and, while it is recording, their bytes from a place on where decoding can start over.
/// Bounded: once the bytes would grow too many, it can start over only after the next key frame.
class H264History {
 public:
  struct Entry {
    std::int64_t pts = 0;
    bool decodeOnly = false;
    bool delivered = false;  ///< its picture has gone out
    bool restart = false;    ///< decoding can start here
    std::vector<std::uint8_t> bytes;
  };

  /// Forgets everything; the next unit is a place to start from. Serials go on.
  void clear();
  void record(bool on);

  /// @return the unit's serial number
  std::int64_t add(const AccessUnits::Unit& unit, std::int64_t pts, bool decodeOnly);
  bool empty() const { return entries_.empty(); }
  /// Takes the newest unit back.
  void dropLast();

  /// Null for a serial that is not, or no longer, kept.
  Entry* find(std::int64_t serial);

  /// Serials of the kept units from the oldest place on where decoding can start over; empty when
  /// there is none.
  struct Range {
    std::int64_t first = 0;
    std::int64_t end = 0;
  };
  Range restartable() const;

 private:
  void dropBytes();
  void prune();

  std::deque<Entry> entries_;
  std::int64_t first_ = 0;  // serial of entries_[0]
  std::size_t held_ = 0;    // bytes of all entries
  bool wanted_ = true;      // recording, as soon as there is a place to start from
  bool recording_ = false;
  bool atStart_ = true;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264HISTORY_H
