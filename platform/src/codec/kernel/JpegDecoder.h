#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGDECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGDECODER_H

#include "codec/cpu/JpegDecoder.h"
#include "codec/kernel/M2mDecoder.h"

namespace codec::kernel {

/// JPEG on a device. The headers are read, and the limits kept, as the CPU's decoder does it.
class JpegDecoder final : public ImageDecoder {
 public:
  JpegDecoder();

  bool open(const std::uint8_t* data, std::size_t size) override;
  unsigned width() const override { return header_.width(); }
  unsigned height() const override { return header_.height(); }
  /// Unusable also for what the device does not take.
  Result decode(const Planes& planes) override;
  /// There is no device, or none that works.
  bool gaveUp() const { return gaveUp_; }
  /// The opened picture, decoded by the CPU instead.
  Result decodeOnCpu(const Planes& planes) { return header_.decode(planes); }
  const std::string& error() const override { return error_.empty() ? header_.error() : error_; }

 private:
  bool prepare();
  void take(const M2mDecoder::Frame& frame);
  Result refuse(const std::string& why);

  codec::JpegDecoder header_;
  M2mDecoder decoder_;
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t room_ = 0;  // for a picture's bytes
  std::uint64_t serial_ = 0;
  const Planes* wanted_ = nullptr;
  bool taken_ = false;
  bool gaveUp_ = false;
  std::string error_;
};

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGDECODER_H
