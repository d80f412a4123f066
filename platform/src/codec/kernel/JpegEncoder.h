#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGENCODER_H

#include "codec/ImageEncoder.h"
#include "codec/kernel/M2mEncoder.h"

namespace codec::kernel {

/// JPEG on a device. YUYV goes in as it is where the device takes it; everything else becomes
/// planar 4:2:0 first. The device stays set up while pictures of one kind follow each other.
class JpegEncoder final : public ImageEncoder {
 public:
  /// @param anyQuality  a device may have a quality of its own
  explicit JpegEncoder(bool anyQuality) : anyQuality_(anyQuality) {}
  bool encode(const PackedPicture& picture, int quality) override;
  bool lacksMemory() const override { return lacksMemory_; }
  /// No device took the last picture of this kind, and none is likely to take the next.
  bool gaveUp(const PackedPicture& picture) const { return gaveUp_ && isOfKind(picture); }
  const std::uint8_t* data() const override {
    return size_ > 0 ? encoder_.data().data[0] : nullptr;
  }
  std::size_t size() const override { return size_; }
  const std::string& error() const override { return error_; }

 private:
  bool fail(const std::string& why);
  bool isOfKind(const PackedPicture& picture) const;
  bool prepare(const PackedPicture& picture);
  bool openOn(const std::string& path, std::uint32_t coded);
  bool setQuality(int quality);
  bool cutToSize();
  bool write(const PackedPicture& picture, Buffer& buffer);
  void writeYuyv(const PackedPicture& picture, Buffer& buffer);
  void toPlanar(const PackedPicture& picture);

  const bool anyQuality_;
  M2mEncoder encoder_;
  unsigned width_ = 0;
  unsigned height_ = 0;
  PixelFormat format_ = PixelFormat::Yuyv;
  int quality_ = 0;
  std::vector<std::uint8_t> planar_;
  std::vector<std::uint8_t> lines_;  // two rows on their way there
  std::size_t size_ = 0;
  bool gaveUp_ = false;
  bool lacksMemory_ = false;
  std::string error_;
};

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_JPEGENCODER_H
