#include "codec/cpu/JpegScans.h"

#include <cstring>
#include <numeric>

namespace codec {

namespace {

constexpr std::uint8_t firstRestart = 0xd0;
constexpr std::uint8_t startOfImage = 0xd8, endOfImage = 0xd9, startOfScan = 0xda;

bool standsAlone(std::uint8_t marker) {
  // A stuffed zero, TEM, RST0 to RST7 and SOI have no length.
  return marker <= 0x01 || (marker >= 0xd0 && marker <= startOfImage);
}

std::size_t segmentLength(const std::uint8_t* marker) {
  return 2 + (std::size_t{marker[2]} << 8 | marker[3]);
}

}  // namespace

JpegScans findScans(const std::uint8_t* data, std::size_t size) {
  JpegScans found;
  std::size_t at = 0;
  while (at + 1 < size) {
    const void* hit = std::memchr(data + at, 0xff, size - at - 1);
    if (hit == nullptr) break;
    at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data);
    const std::uint8_t marker = data[at + 1];
    if (marker == endOfImage) break;
    if (marker == startOfScan) ++found.count;
    if (marker == 0xff) {
      ++at;  // a fill byte; the marker follows
    } else if (standsAlone(marker) || at + 3 >= size) {
      at += 2;
    } else {
      found.lastSegment = at;
      at += segmentLength(data + at);
    }
  }
  return found;
}

std::size_t findSegment(const std::uint8_t* data, std::size_t size, std::uint8_t marker) {
  for (std::size_t at = 2; at + 4 <= size && data[at] == 0xff; at += segmentLength(data + at)) {
    if (data[at + 1] == marker) return at;
    if (data[at + 1] == startOfScan) break;
  }
  return size;
}

std::size_t findScanData(const std::uint8_t* data, std::size_t size) {
  const std::size_t at = findSegment(data, size, startOfScan);
  return at < size ? at + segmentLength(data + at) : size;
}

bool JpegEntries::find(const std::uint8_t* data, std::size_t size, std::size_t scanData,
                       const McuLayout& layout) {
  offsets.clear();
  const unsigned common = std::gcd(layout.columns, layout.interval);
  rowsEach = layout.interval / common;
  if (rowsEach >= layout.rows) return false;
  const unsigned markersEach = layout.columns / common;
  const std::uint64_t markers = (std::uint64_t{layout.columns} * layout.rows - 1) / layout.interval;
  offsets.push_back(scanData);
  std::size_t at = scanData;
  unsigned untilEntry = markersEach;
  for (std::uint64_t seen = 0; seen < markers;) {
    const void* hit = at + 1 < size ? std::memchr(data + at, 0xff, size - at - 1) : nullptr;
    if (hit == nullptr) return false;
    const auto* const marker = static_cast<const std::uint8_t*>(hit) + 1;
    at = static_cast<std::size_t>(marker + 1 - data);
    if (*marker == 0) continue;  // data that looks like a marker's first byte
    if (*marker != firstRestart + seen % 8) return false;
    ++seen;
    if (--untilEntry > 0) continue;
    offsets.push_back(at);
    untilEntry = markersEach;
  }
  return true;
}

}  // namespace codec
