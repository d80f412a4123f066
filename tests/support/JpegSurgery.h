#ifndef TESSERA_TESTS_SUPPORT_JPEGSURGERY_H
#define TESSERA_TESTS_SUPPORT_JPEGSURGERY_H

#include "support/JpegOracle.h"

/// JPEGs as TurboJPEG does not write them, made from some that it does.
namespace surgery {

using support::Bytes;

/// Offsets of the segments with that marker code, up to the first scan.
std::vector<std::size_t> segments(const Bytes& jpeg, std::uint8_t code);

/// The file with some bytes put in.
Bytes insert(const Bytes& jpeg, std::size_t at, const Bytes& bytes);

/// The file without its Huffman tables, as cameras write MJPEG.
Bytes withoutTables(Bytes jpeg);

/// The file with other bytes in its baseline frame header: from 1 its code (0xC3 lossless, 0xC9
/// arithmetic, ...), from 4 its precision, from 5 its size.
Bytes withHeader(Bytes jpeg, std::size_t offset, const Bytes& bytes);
Bytes withSize(Bytes jpeg, int width, int height);

/// The file with its last scan that many times.
Bytes withScans(const Bytes& jpeg, int count);

/// A grey JPEG's scan as the luma of a baseline picture whose scans stand behind an invalid marker
/// at a restart boundary, out of sight of who steps over segments by their lengths: some empty ones
/// before it, and some after it.
Bytes withHiddenScans(const Bytes& grey, int before, int after);

Bytes cmyk(int width, int height);

/// encodeJpeg with one of TurboJPEG's environment switches on.
Bytes encodeWith(const char* variable, const char* value, const support::Image& image,
                 support::Sampling sampling);

}  // namespace surgery

#endif  // TESSERA_TESTS_SUPPORT_JPEGSURGERY_H
