#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264ENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264ENCODER_H

#include "codec/VideoEncoder.h"
#include "codec/kernel/M2mEncoder.h"

namespace codec::kernel {

/// H.264 on a device. Takes of the configuration what the device takes: only the size must be had
/// exactly. Opening encodes a grey frame, which shows that the device works and what its parameter
/// sets are, and then starts the stream anew.
class H264Encoder final : public VideoEncoder {
 public:
  bool open(const Config& config) override;
  bool isOpen() const override { return encoder_.isOpen(); }
  const std::vector<std::uint8_t>& parameterSets() const override { return parameterSets_; }
  bool encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) override;
  const std::uint8_t* data() const override { return data_; }
  std::size_t size() const override { return size_; }
  bool isKeyFrame() const override { return keyFrame_; }
  std::int64_t pts() const override { return pts_; }
  const std::string& error() const override { return error_; }

  /// Opens on one device.
  bool openOn(const std::string& path, const Config& config);
  /// The settings of the last open() which the device does not have, or refused, and why.
  const std::vector<std::string>& notTaken() const { return notTaken_; }

 private:
  bool openOn(const std::string& path);
  bool set(const char* name, std::uint32_t id, std::int64_t value);
  void lacks(const char* name, std::uint32_t id);
  void configure();
  void configureRate();
  void configureShape();
  bool prime();
  bool submit(const ConstPlanes& frame);
  bool fail(const std::string& why);
  bool failForMemory();
  bool collect();
  void hand(const Buffer& buffer);

  M2mEncoder encoder_;
  Config config_;
  std::vector<std::uint8_t> parameterSets_;
  std::vector<std::uint8_t> joined_;  // bytes that came in pieces, or behind parameter sets
  std::vector<std::int64_t> stamps_;  // of the frames inside, by serial
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  bool keyFrame_ = false;
  bool first_ = true;  // nothing of this stream has come out
  std::int64_t pts_ = 0;
  std::string error_;
  std::vector<std::string> notTaken_;
};

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264ENCODER_H
