#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264M2M_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264M2M_H

#include <deque>

#include "codec/H264Engine.h"
#include "codec/kernel/M2mDecoder.h"

namespace codec::kernel {

/// H.264 access units on a device. Its pictures are read out of the device's memory as they come:
/// what waits for the application must not keep the device waiting.
class H264M2m final : public H264Engine {
 public:
  H264M2m();

  /// Looks for a device; for pictures of a size where it is known, else 0.
  bool find(unsigned width, unsigned height);

  bool open(const std::vector<std::uint8_t>& parameterSets) override;
  void close() override;
  bool isOpen() const override { return decoder_.isOpen(); }
  bool send(const std::uint8_t* data, std::size_t size, std::int64_t serial) override;
  void finish() override;
  Frame receive() override;
  void recycle(Frame frame) override;
  bool reportsDamage() const override { return false; }
  bool showsDeepPictures() const override { return tenBits_; }
  std::string failure() const override { return failure_; }

 private:
  void take(const M2mDecoder::Frame& from);
  Frame frameOf(unsigned width, unsigned height);
  bool note(bool good);

  M2mDecoder decoder_;
  std::vector<std::uint8_t> unit_;  // parameter sets that go in before the next unit
  std::deque<Frame> ready_;
  std::vector<Frame> spare_;
  std::string failure_;
  bool tenBits_ = false;
};

/// Whether an H.264 decoder lists a profile of ten bits a sample.
bool decodesTenBits(M2mDevice& device);

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_H264M2M_H
