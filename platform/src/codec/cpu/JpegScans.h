#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H

#include <cstddef>
#include <cstdint>
#include <vector>

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

/// How a scan's MCUs lie in the picture and between restart markers.
struct McuLayout {
  unsigned columns = 0;
  unsigned rows = 0;
  unsigned interval = 0;  ///< not 0
};

/// Where decoding a scan can begin: at MCU rows that a restart marker stands in front of.
struct JpegEntries {
  unsigned rowsEach = 0;             ///< MCU rows from one entry to the next
  std::vector<std::size_t> offsets;  ///< of each entry's data; the first is the scan's own

  /// @return false where there is only one entry, or where other markers stand in the scan than the
  /// layout asks for
  bool find(const std::uint8_t* data, std::size_t size, std::size_t scanData,
            const McuLayout& layout);
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSCANS_H
