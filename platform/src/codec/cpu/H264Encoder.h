#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H

#include <memory>

#include "codec/VideoEncoder.h"

namespace codec {

/// H.264 on x264 with its settings for zero latency.
class H264Encoder final : public VideoEncoder {
 public:
  H264Encoder();
  ~H264Encoder() override;

  bool open(const Config& config) override;
  bool isOpen() const override;
  const std::vector<std::uint8_t>& parameterSets() const override;
  bool encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) override;
  const std::uint8_t* data() const override;
  std::size_t size() const override;
  bool isKeyFrame() const override;
  std::int64_t pts() const override;
  const std::string& error() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H
