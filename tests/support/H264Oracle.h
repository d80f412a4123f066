#ifndef TESSERA_TESTS_SUPPORT_H264ORACLE_H
#define TESSERA_TESTS_SUPPORT_H264ORACLE_H

#include "support/Pictures.h"

namespace support {

/// What libavcodec makes of a stream.
struct H264Stream {
  std::vector<Yuv> pictures;  ///< in presentation order, cropped
  std::vector<bool> keyFrames;
  int profile = 0;  ///< 66 baseline, 77 main, 100 high
  int level = 0;    ///< ten times the level's number
  int aspectNum = 0;
  int aspectDen = 0;
  int frameRateNum = 0;  ///< from the VUI, 0 where it has none
  int frameRateDen = 0;
};

H264Stream decodeH264(const Bytes& stream);

/// What to make a stream of, with x264.
struct H264Options {
  int width = 320;
  int height = 240;
  int frames = 10;
  int bFrames = 0;
  int slices = 1;
  int keyInterval = 30;
  int quantiser = 24;
  bool interlaced = false;
  const char* profile = "high";
};

/// A stream and the places where its access units start, its size last.
struct H264Made {
  Bytes stream;
  std::vector<std::size_t> units;
};

/// Encodes scene(width, height, 0 ...).
H264Made encodeH264(const H264Options& options);

/// Offsets of the start codes (of the byte before a 3-byte one where that is zero), size last.
std::vector<std::size_t> nalStarts(const Bytes& stream);
/// The types of its NAL units, and whether one of them is a slice.
std::vector<int> nalTypes(const Bytes& stream);
bool holdsSlice(const Bytes& stream);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_H264ORACLE_H
