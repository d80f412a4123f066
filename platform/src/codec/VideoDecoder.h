#ifndef TESSERA_PLATFORM_SRC_CODEC_VIDEODECODER_H
#define TESSERA_PLATFORM_SRC_CODEC_VIDEODECODER_H

#include <cstdint>
#include <string>

#include "codec/Picture.h"

namespace codec {

/// H.264 (Annex B, cut anywhere) to 4:2:0 pictures in presentation order. One thread at a time per
/// object.
class VideoDecoder {
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

  VideoDecoder() = default;
  virtual ~VideoDecoder() = default;
  VideoDecoder(const VideoDecoder&) = delete;
  VideoDecoder& operator=(const VideoDecoder&) = delete;

  /// Starts (or restarts). `extraData` are parameter sets in Annex B or avcC, or null.
  virtual bool open(const std::uint8_t* extraData, std::size_t extraDataSize) = 0;
  /// Starts over with the parameter sets seen so far: after one of the calls below threw
  /// std::bad_alloc, which loses all pictures up to the next key frame.
  virtual bool reopen() = 0;

  /// Takes bytes of the stream. pts and decodeOnly belong to the access unit that starts in them.
  /// @param unitEnds  the bytes end an access unit: decode it now, do not wait for the next one's
  ///                  first byte; a field waits all the same, as what it lacks would not show
  virtual void feed(const std::uint8_t* data, std::size_t size, std::int64_t pts, bool decodeOnly,
                    bool unitEnds) = 0;

  /// Makes every picture held for reordering come out, and starts afresh after it. An
  /// end-of-sequence NAL unit in the stream does the same.
  virtual void flush() = 0;

  /// Takes the next finished picture. @return false when there is none; `picture` is valid until
  /// the next call of feed(), flush(), open() or next()
  virtual bool next(Picture& picture) = 0;

  /// Nothing comes out any more until the next open(); error() tells why.
  virtual bool failed() const = 0;
  virtual const std::string& error() const = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_VIDEODECODER_H
