#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H

#include <memory>

#include "codec/VideoDecoder.h"

namespace codec {

/// H.264 on libavcodec without frame threads: no delay beyond the stream's reordering.
class H264Decoder final : public VideoDecoder {
 public:
  H264Decoder();
  ~H264Decoder() override;

  bool open(const std::uint8_t* extraData, std::size_t extraDataSize) override;
  void feed(const std::uint8_t* data, std::size_t size, std::int64_t pts, bool decodeOnly,
            bool unitEnds) override;
  void flush() override;
  bool next(Picture& picture) override;
  const std::string& error() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
