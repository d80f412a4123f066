#ifndef TESSERA_PLATFORM_SRC_CODEC_IMAGEDECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_IMAGEDECODER_H

#include <string>

#include "codec/Picture.h"

namespace codec {

/// JPEG to planar 4:2:0. One thread at a time per object.
class ImageDecoder {
 public:
  enum class Result {
    Complete,  ///< the whole picture
    Damaged,   ///< the picture as far as the data went; error() tells
    Unusable,  ///< no picture; error() tells; the planes may have been written in part
  };

  ImageDecoder() = default;
  virtual ~ImageDecoder() = default;
  ImageDecoder(const ImageDecoder&) = delete;
  ImageDecoder& operator=(const ImageDecoder&) = delete;

  /// Reads the headers of a picture and keeps a reference to the bytes, which must stay until
  /// decode() returns or the next open().
  /// @return false when it cannot be decoded at all, or claims more than the limits allow
  virtual bool open(const std::uint8_t* data, std::size_t size) = 0;

  /// Size of the last opened picture, 0 when it was refused.
  virtual unsigned width() const = 0;
  virtual unsigned height() const = 0;

  /// Decodes the opened picture.
  /// @param planes  yStride at least width rounded up to 32 and rows for height rounded up to 16;
  ///                chroma at half of both. Padding may be written.
  virtual Result decode(const Planes& planes) = 0;

  virtual const std::string& error() const = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_IMAGEDECODER_H
