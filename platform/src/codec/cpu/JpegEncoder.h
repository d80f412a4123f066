#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H

#include <memory>
#include <string>

#include "codec/Picture.h"

namespace codec {

/// Baseline JPEG from packed pictures, on libjpeg-turbo. YUYV becomes 4:2:2, RGB becomes 4:2:0.
/// One thread at a time per object; the object keeps its buffers from picture to picture. Large
/// pictures are made by several threads of the object's own, with restart markers between their
/// parts.
class JpegEncoder {
 public:
  JpegEncoder();
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  /// Encodes width x height pixels of the picture, exactly. Rows that the picture's size does not
  /// cover repeat the last one it does.
  /// @param quality  1 to 100
  /// @return true, or false with error() telling why (no memory, a size beyond 65,500, no data)
  bool encode(const PackedPicture& picture, int quality);

  /// The JPEG of the last encode(); valid until the next.
  const std::uint8_t* data() const;
  std::size_t size() const;
  const std::string& error() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H
