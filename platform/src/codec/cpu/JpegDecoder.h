#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H

#include <memory>
#include <string>

#include "codec/Picture.h"

namespace codec {

/// JPEG to planar 4:2:0, on libjpeg-turbo (integer transform). Takes every baseline and progressive
/// Huffman-coded 8-bit picture of one or three components, arithmetic coding where the library has
/// it, and MJPEG frames without Huffman tables. One thread at a time per object.
class JpegDecoder {
 public:
  /// What a picture may claim before anything is allocated for it.
  struct Limits {
    unsigned width = 16384;
    unsigned height = 16384;
    std::uint64_t pixels = 64u << 20;  ///< about 8K x 8K
    unsigned scans = 100;              ///< progressive files of a few kB can claim thousands
  };
  enum class Result {
    Complete,  ///< the whole picture
    Damaged,   ///< the picture as far as the data went; error() tells
    Unusable,  ///< no picture; error() tells; the planes may have been written in part
  };

  JpegDecoder();
  explicit JpegDecoder(const Limits& limits);
  ~JpegDecoder();
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  /// Reads the headers of a picture and keeps a reference to the bytes, which must stay until
  /// decode() returns or the next open().
  /// @return false when it cannot be decoded at all, or claims more than the limits allow
  bool open(const std::uint8_t* data, std::size_t size);

  /// Size of the last opened picture, 0 when it was refused.
  unsigned width() const;
  unsigned height() const;

  /// Decodes the opened picture. Pixels go straight into the planes where the file is 4:2:0.
  /// @param planes  yStride at least width rounded up to 32 and rows for height rounded up to 16;
  ///                chroma at half of both. Padding may be written.
  Result decode(const Planes& planes);

  const std::string& error() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H
