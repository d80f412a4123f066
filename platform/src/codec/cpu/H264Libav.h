#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264LIBAV_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264LIBAV_H

#include "codec/H264Engine.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace codec {

/// libavcodec's decoder. Silent, without threads: frame threads would add delay, slice threads
/// would turn off the concealment of errors.
class H264Libav final : public H264Engine {
 public:
  bool open(const std::vector<std::uint8_t>& parameterSets) override;
  void close() override { context_.reset(); }
  bool isOpen() const override { return context_ != nullptr; }
  bool send(const std::uint8_t* data, std::size_t size, std::int64_t serial) override;
  void finish() override;
  Frame receive() override;
  void recycle(Frame frame) override;
  int delay() const override { return context_ == nullptr ? 0 : context_->has_b_frames; }
  void setDelay(int pictures) override {
    if (context_ != nullptr) context_->has_b_frames = pictures;
  }

 private:
  struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  };
  struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  };

  bool start(const std::vector<std::uint8_t>& parameterSets);

  std::unique_ptr<AVCodecContext, FreeContext> context_;
  std::unique_ptr<AVPacket, FreePacket> packet_;
  std::vector<Frame> spare_;
};

/// Whether the decoder had to make up parts of the picture.
bool isDamaged(const AVFrame& frame);

/// Whether two pictures show the same.
bool isSame(const AVFrame& a, const AVFrame& b);

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264LIBAV_H
