#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H

#include <memory>
#include <string>
#include <vector>

#include "codec/Picture.h"

namespace codec {

/// H.264 on x264: zero latency, so every frame that goes in comes out of the same call. One thread
/// at a time per object.
class H264Encoder {
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

  H264Encoder();
  ~H264Encoder();
  H264Encoder(const H264Encoder&) = delete;
  H264Encoder& operator=(const H264Encoder&) = delete;

  /// Starts (or restarts) with a configuration. @return false with error() telling why
  bool open(const Config& config);
  bool isOpen() const;

  /// The parameter sets (SPS and PPS), Annex B. Key frames after the first repeat them in-band.
  const std::vector<std::uint8_t>& parameterSets() const;

  /// Encodes one frame; pts is any 64-bit value and comes back with it. Planes are read during the
  /// call only and hold width x height pixels, chroma rounded up.
  bool encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame = false);

  /// What the last encode() produced, Annex B without parameter sets on the first key frame; valid
  /// until the next call. Size 0: the rate control dropped the frame.
  const std::uint8_t* data() const;
  std::size_t size() const;
  bool isKeyFrame() const;
  std::int64_t pts() const;

  const std::string& error() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_H264ENCODER_H
