#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H

#include <memory>

#include "codec/ImageDecoder.h"

namespace codec {

/// JPEG to planar 4:2:0, on libjpeg-turbo (integer transform). Takes every baseline and progressive
/// Huffman-coded 8-bit picture of one or three components, arithmetic coding where the library has
/// it, and MJPEG frames without Huffman tables. Pixels go straight into the planes where the file
/// is 4:2:0. Large pictures with restart markers are decoded by several threads of the object's own.
class JpegDecoder final : public ImageDecoder {
 public:
  /// What a picture may claim before anything is allocated for it.
  struct Limits {
    unsigned width = 16384;
    unsigned height = 16384;
    std::uint64_t pixels = 64u << 20;  ///< about 8K x 8K
    unsigned scans = 100;              ///< progressive files of a few kB can claim thousands
    /// Pixels times scans: what decoding costs. Twenty scans are always allowed.
    std::uint64_t work = 256u << 20;
    unsigned threads = 0;  ///< that may take part; 0: as many as processors, for large pictures
  };

  JpegDecoder();
  explicit JpegDecoder(const Limits& limits);
  ~JpegDecoder() override;

  bool open(const std::uint8_t* data, std::size_t size) override;
  unsigned width() const override;
  unsigned height() const override;
  Result decode(const Planes& planes) override;
  const std::string& error() const override;
  /// How many threads the last picture was decoded by.
  unsigned threadsTaken() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGDECODER_H
