#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H

#include <cstddef>
#include <cstdint>

namespace codec {

/// The scans that a JPEG's markers announce, found without decoding.
struct JpegScans {
  std::size_t count = 0;
  std::size_t lastSegment = 0;  ///< offset of the last marker segment of any kind
};

/// Walks the first `size` bytes of a JPEG up to its end-of-image marker. Segments are stepped over
/// by their lengths, so that an embedded thumbnail's markers do not count.
JpegScans findScans(const std::uint8_t* data, std::size_t size);

/// Offset of the first marker of a kind in front of the first scan's data, `size` when there is
/// none.
std::size_t findSegment(const std::uint8_t* data, std::size_t size, std::uint8_t marker);

/// Offset of the first scan's data, `size` when there is none.
std::size_t findScanData(const std::uint8_t* data, std::size_t size);

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H
