#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H

#include <memory>

#include "codec/H264Engine.h"
#include "codec/VideoDecoder.h"

namespace codec {

/// Finds the access units and lets an engine decode them, libavcodec unless told otherwise. No
/// delay beyond the stream's reordering.
class H264Decoder final : public VideoDecoder {
 public:
  H264Decoder();
  explicit H264Decoder(std::unique_ptr<H264Engine> engine);
  ~H264Decoder() override;

  bool open(const std::uint8_t* extraData, std::size_t extraDataSize) override;
  bool reopen() override;
  void feed(const std::uint8_t* data, std::size_t size, std::int64_t pts, bool decodeOnly,
            bool unitEnds) override;
  void flush() override;
  bool next(Picture& picture) override;
  bool failed() const override;
  const std::string& error() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
