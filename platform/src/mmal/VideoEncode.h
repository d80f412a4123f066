#ifndef TESSERA_PLATFORM_SRC_MMAL_VIDEOENCODE_H
#define TESSERA_PLATFORM_SRC_MMAL_VIDEOENCODE_H

#include "codec/Choice.h"
#include "mmal/Component.h"

namespace mmal {

/// "vc.ril.video_encode": I420 frames, one an input buffer, to H.264. The parameter sets come
/// first, in a buffer of their own flagged CONFIG, and in-band before every later key frame. A
/// frame that is longer than an output buffer takes several, in order. While output waits for
/// buffers, input is held: nothing is dropped and nothing piles up.
class VideoEncode final : public Component {
 public:
  static constexpr char publishedName[] = "vc.ril.video_encode";

  VideoEncode();

 private:
  /// Encoded bytes on their way out.
  struct Outgoing {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::size_t sent = 0;
    std::uint32_t flags = 0;
    std::int64_t pts = MMAL_TIME_UNKNOWN;
    bool last = false;  ///< the end of the stream comes with it
    bool waiting = false;
  };

  MMAL_STATUS_T checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const override;
  void setRequirements() override;
  MMAL_STATUS_T setOwnParameter(Port& target, const MMAL_PARAMETER_HEADER_T& parameter) override;
  MMAL_STATUS_T getOwnParameter(Port& target, MMAL_PARAMETER_HEADER_T& parameter) override;
  std::vector<MMAL_FOURCC_T> encodings(const Port& target) const override;
  bool work() override;
  bool awaits(const Port& target) const override {
    return (config_.waiting || frame_.waiting) == target.isOutput();
  }
  void discard(Port& target) override;

  MMAL_STATUS_T setProfile(const MMAL_PARAMETER_HEADER_T& parameter);
  bool open();
  codec::ConstPlanes planesIn(const Header& in);
  bool encode(const Header& in);
  bool write(Outgoing& outgoing);

  const std::unique_ptr<codec::VideoEncoder> encoder_ = codec::makeVideoEncoder();
  Outgoing config_, frame_;

  // Guarded by the component's lock.
  MMAL_PARAMETER_VIDEO_PROFILE_S profile_{MMAL_VIDEO_PROFILE_H264_HIGH, MMAL_VIDEO_LEVEL_H264_4};
  std::uint32_t intraPeriod_ = 0;
  MMAL_VIDEO_RATECONTROL_T rateControl_ = MMAL_VIDEO_RATECONTROL_DEFAULT;
  bool keyFrameWanted_ = false;
  bool reopen_ = true;  ///< formats or parameters are not the encoder's yet
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_VIDEOENCODE_H
