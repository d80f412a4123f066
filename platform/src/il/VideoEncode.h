#ifndef TESSERA_PLATFORM_SRC_IL_VIDEOENCODE_H
#define TESSERA_PLATFORM_SRC_IL_VIDEOENCODE_H

#include "codec/Choice.h"
#include "il/Component.h"

namespace il {

/// OMX.broadcom.video_encode: planar 4:2:0 on port 200 to H.264 (Annex B) on port 201.
///
/// Every input buffer is one frame of the input port's size, stride and slice height; EOS on it
/// ends nothing. The stream starts with the parameter sets in a buffer of their own, flagged
/// CODECCONFIG; later key frames carry them in-band. Each frame follows in as many buffers as it
/// takes, the last flagged ENDOFFRAME, all of a key frame's flagged SYNCFRAME, with the frame's
/// time stamp. The next frame is encoded when the bytes of the one before are all handed out, so
/// that one frame at most waits inside. A frame that the rate control drops has no buffer.
///
/// A configuration that cannot be encoded raises an error event at the first frame, and so does a
/// frame that is not all inside its buffer; the input buffer comes back all the same.
class VideoEncode : public Component {
 public:
  static const Kind kind;

  VideoEncode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData);

 protected:
  OMX_ERRORTYPE adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) override;
  OMX_ERRORTYPE getOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) override;
  OMX_ERRORTYPE setOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) override;
  bool work(Lock& lock) override;
  bool hasWork() override;
  void discard(Lock& lock, Port& port, OMX_COMMANDTYPE reason) override;

 private:
  /// Bytes that wait for output buffers.
  struct Outgoing {
    const OMX_U8* data = nullptr;
    std::size_t left = 0;
    OMX_U32 flags = 0;      ///< on every buffer
    OMX_U32 lastFlags = 0;  ///< on the last as well
  };

  bool takeFrame(Lock& lock);
  bool open(Lock& lock);
  void encode(Lock& lock, Buffer& buffer);
  bool write(Lock& lock, Outgoing& outgoing);
  OMX_ERRORTYPE setRate(const OMX_VIDEO_PARAM_BITRATETYPE& rate);
  OMX_ERRORTYPE setAvc(const OMX_VIDEO_PARAM_AVCTYPE& avc);
  codec::VideoEncoder::Config config();

  const std::unique_ptr<codec::VideoEncoder> encoder_ = codec::makeVideoEncoder();
  bool reopen_ = true;  ///< the settings are not the encoder's yet
  Outgoing parameterSets_;
  Outgoing frame_;
  OMX_TICKS timeStamp_{};  ///< of the bytes that wait
  OMX_VIDEO_CONTROLRATETYPE controlRate_ = OMX_Video_ControlRateVariable;
  OMX_VIDEO_PARAM_AVCTYPE avc_{};
  bool keyFrameWanted_ = false;
};

}  // namespace il

#endif  // TESSERA_PLATFORM_SRC_IL_VIDEOENCODE_H
