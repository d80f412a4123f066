#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H

#include <memory>

#include "codec/ImageEncoder.h"

namespace codec {

/// Baseline JPEG on libjpeg-turbo. YUYV becomes 4:2:2, RGB becomes 4:2:0. Large pictures are made
/// by several threads of the object's own, with restart markers between their parts.
class JpegEncoder final : public ImageEncoder {
 public:
  JpegEncoder();
  ~JpegEncoder() override;

  bool encode(const PackedPicture& picture, int quality) override;
  bool lacksMemory() const override;
  const std::uint8_t* data() const override;
  std::size_t size() const override;
  const std::string& error() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGENCODER_H
