#ifndef TESSERA_TESTS_CODEC_SEGMENTS_H
#define TESSERA_TESTS_CODEC_SEGMENTS_H

#include <vector>

#include "support/Pictures.h"

namespace marker {
constexpr std::uint8_t frame = 0xc0, huffman = 0xc4, scan = 0xda, quantisation = 0xdb, jfif = 0xe0;
}

/// Where the marker segments in front of a JPEG's first scan start; the scan's last.
inline std::vector<std::size_t> segmentStarts(const support::Bytes& jpeg) {
  std::vector<std::size_t> starts;
  for (std::size_t at = 2; at + 4 < jpeg.size(); at += 2 + (jpeg[at + 2] << 8 | jpeg[at + 3])) {
    starts.push_back(at);
    if (jpeg[at + 1] == marker::scan) break;
  }
  return starts;
}

/// The JPEG without the segments of one kind.
inline support::Bytes withoutSegments(const support::Bytes& jpeg, std::uint8_t kind) {
  support::Bytes rest = jpeg;
  const std::vector<std::size_t> starts = segmentStarts(jpeg);
  for (std::size_t i = starts.size() - 1; i-- > 0;)
    if (jpeg[starts[i] + 1] == kind)
      rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(starts[i]),
                 rest.begin() + static_cast<std::ptrdiff_t>(starts[i + 1]));
  return rest;
}

#endif  // TESSERA_TESTS_CODEC_SEGMENTS_H
