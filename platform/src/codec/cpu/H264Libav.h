#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264LIBAV_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264LIBAV_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace codec {

struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

/// libavcodec's H.264 decoder for whole access units. Silent, without threads: frame threads would
/// add delay, slice threads would turn off the concealment of errors. Where open() failed, nothing
/// comes out.
class H264Libav {
 public:
  /// Starts afresh, knowing these parameter sets (Annex B, may be empty).
  bool open(const std::vector<std::uint8_t>& parameterSets);
  void close() { context_.reset(); }
  bool isOpen() const { return context_ != nullptr; }

  /// Decodes one access unit. Its picture will carry `serial` as pts. @return false when the
  /// decoder reports that something was wrong with it
  bool send(const std::uint8_t* data, std::size_t size, std::int64_t serial);
  /// Makes all pictures come out. After it, open() anew.
  void finish();
  /// The next picture in presentation order, null when there is none.
  Frame receive();
  /// Takes a picture back, for the next receive().
  void recycle(Frame frame);

  /// Pictures that are held back for their order.
  int delay() const { return context_ == nullptr ? 0 : context_->has_b_frames; }
  void setDelay(int pictures) {
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
