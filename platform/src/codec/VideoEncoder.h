#ifndef TESSERA_PLATFORM_SRC_CODEC_VIDEOENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_VIDEOENCODER_H

#include <string>
#include <vector>

#include "codec/Picture.h"

namespace codec {

/// An H.264 encoder without delay: every frame that goes in comes out of the same call. One thread
/// at a time per object.
class VideoEncoder {
 public:
  enum class Profile { Baseline, ConstrainedBaseline, Main, High };

  struct Config {
    unsigned width = 0;  ///< cropped size, what a decoder shows; odd sizes are rounded up to even
    unsigned height = 0;
    unsigned frameRateNum = 30;
    unsigned frameRateDen = 1;
    unsigned aspectNum = 1;
    unsigned aspectDen = 1;
    unsigned bitrate = 0;      ///< bits a second; 0: constant quality
    unsigned intraPeriod = 0;  ///< frames from key frame to key frame; 0: one second of video
    Profile profile = Profile::High;
    unsigned level = 40;  ///< ten times the level's number: 40 is level 4
    bool constantBitrate = false;
  };

  VideoEncoder() = default;
  virtual ~VideoEncoder() = default;
  VideoEncoder(const VideoEncoder&) = delete;
  VideoEncoder& operator=(const VideoEncoder&) = delete;

  /// Starts (or restarts) with a configuration. @return false with error() telling why
  virtual bool open(const Config& config) = 0;
  virtual bool isOpen() const = 0;

  /// The parameter sets (SPS and PPS), Annex B. Key frames after the first repeat them in-band.
  virtual const std::vector<std::uint8_t>& parameterSets() const = 0;

  /// Encodes one frame; pts is any 64-bit value and comes back with it. Planes are read during the
  /// call only and hold width x height pixels, chroma rounded up.
  virtual bool encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) = 0;

  /// What the last encode() produced, Annex B without parameter sets on the first key frame; valid
  /// until the next call. Size 0: the rate control dropped the frame.
  virtual const std::uint8_t* data() const = 0;
  virtual std::size_t size() const = 0;
  virtual bool isKeyFrame() const = 0;
  virtual std::int64_t pts() const = 0;

  virtual const std::string& error() const = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_VIDEOENCODER_H
