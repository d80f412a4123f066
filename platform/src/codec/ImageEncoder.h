#ifndef TESSERA_PLATFORM_SRC_CODEC_IMAGEENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_IMAGEENCODER_H

#include <string>

#include "codec/Picture.h"

namespace codec {

/// JPEG from packed pictures. One thread at a time per object; the object keeps its buffers from
/// picture to picture.
class ImageEncoder {
 public:
  ImageEncoder() = default;
  virtual ~ImageEncoder() = default;
  ImageEncoder(const ImageEncoder&) = delete;
  ImageEncoder& operator=(const ImageEncoder&) = delete;

  /// Encodes width x height pixels of the picture, exactly. Rows that the picture's size does not
  /// cover repeat the last one it does.
  /// @param quality  1 to 100
  /// @return true, or false with error() telling why (no memory, a size beyond 65,500, no data)
  virtual bool encode(const PackedPicture& picture, int quality) = 0;
  /// Whether the last encode() failed only for want of memory: the same picture may work later.
  virtual bool lacksMemory() const = 0;

  /// The JPEG of the last encode(); valid until the next.
  virtual const std::uint8_t* data() const = 0;
  virtual std::size_t size() const = 0;
  virtual const std::string& error() const = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_IMAGEENCODER_H
