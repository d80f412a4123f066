#ifndef TESSERA_PLATFORM_SRC_MMAL_FORMAT_H
#define TESSERA_PLATFORM_SRC_MMAL_FORMAT_H

#include <cstdint>
#include <vector>

#include "interface/mmal/mmal_format.h"

namespace mmal {

/// A format with the memory of its details and its extradata.
struct Format final : MMAL_ES_FORMAT_T {
  Format();
  Format(const Format&) = delete;
  Format& operator=(const Format&) = delete;

  MMAL_STATUS_T copyAll(const MMAL_ES_FORMAT_T& source);
  MMAL_STATUS_T reserveExtraData(std::uint32_t size);

  const MMAL_VIDEO_FORMAT_T& video() const { return specific_.video; }
  MMAL_VIDEO_FORMAT_T& video() { return specific_.video; }

 private:
  MMAL_ES_SPECIFIC_FORMAT_T specific_{};
  std::vector<std::uint8_t> extra_;
};

/// Copies everything but the extradata, of which the destination has none then.
void copyFormat(MMAL_ES_FORMAT_T& destination, const MMAL_ES_FORMAT_T& source);

/// Bytes of a raw frame in the padded layout; 0 for an encoding that is not raw.
std::uint32_t rawFrameBytes(MMAL_FOURCC_T encoding, std::uint32_t width, std::uint32_t height);

/// The picture within a frame: the crop rectangle, or everything where that is empty.
MMAL_RECT_T pictureOf(const MMAL_VIDEO_FORMAT_T& video);

/// Raw frames: a size that the codecs take (rows of whole 32 pixels, 16 rows at a time, at most
/// 16,384 each way) with the crop inside it.
bool rawGeometryFits(const MMAL_VIDEO_FORMAT_T& video);

constexpr std::uint32_t largestSide = 16384;

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_FORMAT_H
