#ifndef TESSERA_PLATFORM_SRC_CODEC_H264ENGINE_H
#define TESSERA_PLATFORM_SRC_CODEC_H264ENGINE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

namespace codec {

struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

/// What decodes whole access units of an H.264 stream, and only those. Where open() failed, nothing
/// comes out. @throws std::bad_alloc where there was no memory; close() and open() anew after it
class H264Engine {
 public:
  H264Engine() = default;
  virtual ~H264Engine() = default;
  H264Engine(const H264Engine&) = delete;
  H264Engine& operator=(const H264Engine&) = delete;

  /// Starts afresh, knowing these parameter sets (Annex B, may be empty). @return false with
  /// failure() telling why, or for want of memory where that tells nothing
  virtual bool open(const std::vector<std::uint8_t>& parameterSets) = 0;
  virtual void close() = 0;
  virtual bool isOpen() const = 0;

  /// Decodes one access unit. Its picture will carry `serial` as pts. @return false when the
  /// decoder reports that something was wrong with it
  virtual bool send(const std::uint8_t* data, std::size_t size, std::int64_t serial) = 0;
  /// Makes all pictures come out. After it, open() anew.
  virtual void finish() = 0;
  /// The next picture in presentation order, null when there is none.
  virtual Frame receive() = 0;
  /// Takes a picture back, for the next receive().
  virtual void recycle(Frame frame) = 0;

  /// Pictures that are held back for their order, where that can be set.
  virtual int delay() const { return 0; }
  virtual void setDelay(int) {}

  /// Whether a damaged unit shows in send() or in the picture.
  virtual bool reportsDamage() const { return true; }
  /// Whether pictures of more than eight bits come out all the same, as such of eight.
  virtual bool showsDeepPictures() const { return false; }
  /// Why nothing will come out any more; empty while all is well.
  virtual std::string failure() const { return ""; }
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_H264ENGINE_H
