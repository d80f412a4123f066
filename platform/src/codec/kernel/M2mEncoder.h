#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MENCODER_H

#include <deque>

#include "codec/kernel/M2mDevice.h"

namespace codec::kernel {

/// Frames into a stateful encoder, coded data out of it, one frame at a time. What belongs together
/// is told by time stamps, never by counting: a device may give back nothing for a frame, or be a
/// frame behind.
class M2mEncoder {
 public:
  struct Setup {
    std::uint32_t coded = 0;  ///< format of what comes out
    std::uint32_t raw = 0;    ///< format of what goes in; 0: the best planar one
    unsigned width = 0;
    unsigned height = 0;
    std::size_t codedSize = 0;  ///< room for a frame's data
    bool mayPad = false;        ///< a device that rounds the size up and does not crop will do
    unsigned rateNum = 0;       ///< frames a second; 0: not told
    unsigned rateDen = 1;
  };
  enum class Outcome { Data, Dropped, Failed };

  /// Opens a device and sets its formats. Controls are set between this and start().
  bool open(const std::string& path, const Setup& setup);
  bool start();
  void close() { device_.close(); }
  /// What comes next is a stream of its own: parameter sets, a key frame. What is inside is lost.
  bool restart();

  bool isOpen() const { return device_.isOpen(); }
  M2mDevice& device() { return device_; }
  const Format& inputFormat() const { return input_; }

  /// A buffer to write a frame into; null when the device gives none back in time.
  Buffer* inputBuffer();
  /// Sends it; the frame's data will carry serial().
  bool submit(Buffer& buffer);

  /// The next data. Dropped: the device made nothing of the frame, or not yet.
  Outcome collect();
  /// Makes what the device holds back come out: the next data, or Dropped at the end. The next
  /// frame starts another stream.
  Outcome drain();
  const Buffer& data() const { return *held_; }
  /// What came out is not all of its frame.
  void expectMore() { unanswered_.push_front(held_->serial); }
  std::uint64_t serial() const { return serial_; }

  const std::string& error() const { return error_.empty() ? device_.error() : error_; }

 private:
  bool fail(const std::string& why);
  bool chooseFormats(const Setup& setup);
  bool giveBack();
  Outcome take(Buffer& buffer);
  void forget(std::uint64_t serial);
  bool isUnanswered(std::uint64_t serial) const;

  M2mDevice device_;
  Format input_;
  Buffer* held_ = nullptr;  // its data is the caller's
  std::deque<std::uint64_t> unanswered_;
  std::uint64_t serial_ = 0;
  std::uint64_t lastBack_ = 0;
  std::size_t lag_ = 0;  // frames that the device has shown to hold back
  bool draining_ = false;
  std::string error_;
};

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MENCODER_H
