#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDECODER_H

#include <deque>
#include <functional>

#include "codec/kernel/M2mDevice.h"

namespace codec::kernel {

/// Coded units into a stateful decoder, frames out of it, in the order of presentation. Follows
/// changes of the format within the stream.
class M2mDecoder {
 public:
  struct Setup {
    std::uint32_t coded = 0;
    std::size_t unitSize = 0;  ///< of the largest unit; larger ones take several buffers
    unsigned width = 0;        ///< where known, else 0
    unsigned height = 0;
  };
  struct Frame {
    const Format& format;
    Rect visible;
    const Buffer& buffer;  ///< its serial is the unit's
  };
  /// Gets every frame, inside the calls below; the frame is the device's again when it returns.
  using Sink = std::function<void(const Frame&)>;

  explicit M2mDecoder(Sink sink) : sink_(std::move(sink)) {}

  bool open(const std::string& path, const Setup& setup);
  bool isOpen() const { return device_.isOpen(); }
  void close() { device_.close(); }
  M2mDevice& device() { return device_; }

  /// Sends a unit and waits for its frame, unless the device has shown that it holds frames back,
  /// or takes no more time for it. @param shows  the unit has a picture
  bool send(const std::uint8_t* data, std::size_t size, std::uint64_t serial, bool shows);
  /// Makes all frames come out.
  bool drain();
  /// What comes next is another stream.
  bool reset();

  const std::string& error() const { return error_.empty() ? device_.error() : error_; }

 private:
  enum class Step { InputBack, Frame, Other, Nothing, Ended, Failed };

  static constexpr std::uint64_t none = UINT64_MAX;

  bool fail(const char* why);
  Buffer* inputBuffer();
  bool awaitFrame(std::uint64_t serial);
  Step step(unsigned milliseconds);
  bool setUpOutput();
  void forget(std::uint64_t serial);
  void deliver(const Buffer& buffer);

  Sink sink_;
  M2mDevice device_;
  Format output_;
  Rect visible_;
  std::deque<std::uint64_t> unanswered_;
  std::size_t lag_ = 0;
  std::uint64_t lastBack_ = none;
  bool changing_ = false;  // the old format's frames come first
  bool used_ = false;
  std::string error_;
};

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDECODER_H
