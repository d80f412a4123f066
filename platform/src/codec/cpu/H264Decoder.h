#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H

#include <memory>
#include <string>

#include "codec/Picture.h"

namespace codec {

/// H.264 (Annex B, cut anywhere) to 4:2:0 pictures in presentation order, on libavcodec with its
/// own parser, slice threads only, no delay beyond the stream's reordering. One thread at a time
/// per object.
class H264Decoder {
 public:
  static constexpr std::int64_t noPts = INT64_MIN;

  struct Picture {
    ConstPlanes planes;
    unsigned width = 0;  ///< after the stream's cropping
    unsigned height = 0;
    std::int64_t pts = noPts;
    bool decodeOnly = false;  ///< was fed as such
    bool damaged = false;     ///< the codec concealed errors
  };

  H264Decoder();
  ~H264Decoder();
  H264Decoder(const H264Decoder&) = delete;
  H264Decoder& operator=(const H264Decoder&) = delete;

  /// Starts (or restarts). `extraData` are parameter sets in Annex B or avcC, or null.
  bool open(const std::uint8_t* extraData, std::size_t extraDataSize);

  /// Takes bytes of the stream. pts and decodeOnly belong to the access unit that starts in them.
  /// @param unitEnds  the bytes end an access unit: decode it now, do not wait for the next one's
  ///                  first byte
  void feed(const std::uint8_t* data, std::size_t size, std::int64_t pts, bool decodeOnly,
            bool unitEnds);

  /// Makes every picture held for reordering come out, and starts afresh after it. An
  /// end-of-sequence NAL unit in the stream does the same.
  void flush();

  /// Takes the next finished picture. @return false when there is none; `picture` is valid until
  /// the next call of feed(), flush(), open() or next()
  bool next(Picture& picture);

  const std::string& error() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264DECODER_H
