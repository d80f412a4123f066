#include "il/VideoEncode.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "codec/Environment.h"

namespace il {
namespace {

constexpr OMX_U32 inputPort = 200;
constexpr OMX_U32 outputPort = 201;
constexpr OMX_U32 defaultBitrate = 2000000;
constexpr OMX_U32 oneFrameASecond = 1u << 16;
constexpr OMX_U32 defaultRate = 30 * oneFrameASecond;
constexpr OMX_U32 largestSide = 16384;

/// Parameter sets always fit; frames are split.
constexpr OMX_U32 smallestOutput = 4096;
constexpr OMX_U32 defaultOutput = 256 * 1024;

struct Level {
  OMX_VIDEO_AVCLEVELTYPE level;
  unsigned number;  ///< ten times the level's; 9 is level 1b
};
constexpr Level levels[] = {
    {OMX_VIDEO_AVCLevel1, 10},  {OMX_VIDEO_AVCLevel1b, 9},  {OMX_VIDEO_AVCLevel11, 11},
    {OMX_VIDEO_AVCLevel12, 12}, {OMX_VIDEO_AVCLevel13, 13}, {OMX_VIDEO_AVCLevel2, 20},
    {OMX_VIDEO_AVCLevel21, 21}, {OMX_VIDEO_AVCLevel22, 22}, {OMX_VIDEO_AVCLevel3, 30},
    {OMX_VIDEO_AVCLevel31, 31}, {OMX_VIDEO_AVCLevel32, 32}, {OMX_VIDEO_AVCLevel4, 40},
    {OMX_VIDEO_AVCLevel41, 41}, {OMX_VIDEO_AVCLevel42, 42}, {OMX_VIDEO_AVCLevel5, 50},
    {OMX_VIDEO_AVCLevel51, 51},
};

/// 0 for a level that does not exist.
unsigned levelNumber(OMX_VIDEO_AVCLEVELTYPE level) {
  for (const Level& each : levels)
    if (each.level == level) return each.number;
  return 0;
}

bool knownProfile(OMX_VIDEO_AVCPROFILETYPE profile) {
  return profile == OMX_VIDEO_AVCProfileBaseline || profile == OMX_VIDEO_AVCProfileMain ||
         profile == OMX_VIDEO_AVCProfileHigh;
}

codec::VideoEncoder::Profile codecProfile(OMX_VIDEO_AVCPROFILETYPE profile) {
  using Profile = codec::VideoEncoder::Profile;
  return profile == OMX_VIDEO_AVCProfileBaseline ? Profile::Baseline
         : profile == OMX_VIDEO_AVCProfileMain   ? Profile::Main
                                                 : Profile::High;
}

std::vector<Port> ports() {
  std::vector<Port> both;
  both.emplace_back(
      inputPort, OMX_PortDomainVideo, OMX_DirInput, 1,
      std::vector<Format>{{OMX_VIDEO_CodingUnused, OMX_COLOR_FormatYUV420PackedPlanar}});
  both.emplace_back(outputPort, OMX_PortDomainVideo, OMX_DirOutput, 1,
                    std::vector<Format>{{OMX_VIDEO_CodingAVC, OMX_COLOR_FormatUnused}});
  return both;
}

std::int64_t microseconds(const OMX_TICKS& ticks) {
  return static_cast<std::int64_t>(std::uint64_t{ticks.nHighPart} << 32 | ticks.nLowPart);
}

}  // namespace

const Kind VideoEncode::kind = {"OMX.broadcom.video_encode", "video_encode", "video_encoder.avc"};

VideoEncode::VideoEncode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData)
    : Component(kind, callbacks, appData, ports()) {
  for (Port* const port : {&input(), &output()}) {
    OMX_VIDEO_PORTDEFINITIONTYPE& video = port->video();
    video.nFrameWidth = defaultWidth;
    video.nFrameHeight = defaultHeight;
    video.xFramerate = defaultRate;
    video.bFlagErrorConcealment = OMX_TRUE;  // so that it shows who takes it back
    video.nBitrate = port->isInput() ? 0 : defaultBitrate;
    port->definition.nBufferSize = port->isInput() ? 0 : defaultOutput;
    VideoEncode::adapt(*port, port->definition);
  }
  stamp(avc_);
  avc_.nPortIndex = outputPort;
  avc_.eProfile = OMX_VIDEO_AVCProfileHigh;
  avc_.eLevel = OMX_VIDEO_AVCLevel4;
}

OMX_ERRORTYPE VideoEncode::adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  reopen_ = true;
  OMX_VIDEO_PORTDEFINITIONTYPE& video = definition.format.video;
  if (!port.isInput()) {
    definition.nBufferSize = std::max(definition.nBufferSize, smallestOutput);
    return OMX_ErrorNone;
  }
  if (video.nFrameWidth > largestSide || video.nFrameHeight > largestSide ||
      video.nSliceHeight > largestSide || video.nStride > static_cast<OMX_S32>(largestSide))
    return OMX_ErrorUnsupportedSetting;
  if (!codec::board::takesVideo(video.nFrameWidth, video.nFrameHeight) ||
      !codec::board::takesRate(video.nFrameWidth, video.nFrameHeight,
                               double(video.xFramerate) / oneFrameASecond))
    return OMX_ErrorUnsupportedSetting;
  const auto asked = static_cast<OMX_U32>(std::max(video.nStride, OMX_S32{0}));
  const OMX_U32 stride = codec::roundUp(std::max(asked, video.nFrameWidth), 2);
  const OMX_U32 slice = codec::roundUp(std::max(video.nSliceHeight, video.nFrameHeight), 2);
  video.nStride = static_cast<OMX_S32>(stride);
  video.nSliceHeight = slice;
  definition.nBufferSize = std::max(definition.nBufferSize, stride * slice / 2 * 3);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE VideoEncode::getOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (index == OMX_IndexParamVideoBitrate) {
    const OMX_ERRORTYPE error = check<OMX_VIDEO_PARAM_BITRATETYPE>(structure, &output());
    if (error != OMX_ErrorNone) return error;
    auto& rate = *static_cast<OMX_VIDEO_PARAM_BITRATETYPE*>(structure);
    rate.eControlRate = controlRate_;
    rate.nTargetBitrate = output().video().nBitrate;
    return OMX_ErrorNone;
  }
  if (index == OMX_IndexParamVideoAvc) {
    const OMX_ERRORTYPE error = check<OMX_VIDEO_PARAM_AVCTYPE>(structure, &output());
    if (error == OMX_ErrorNone) *static_cast<OMX_VIDEO_PARAM_AVCTYPE*>(structure) = avc_;
    return error;
  }
  return OMX_ErrorUnsupportedIndex;
}

OMX_ERRORTYPE VideoEncode::setOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  OMX_ERRORTYPE error = OMX_ErrorUnsupportedIndex;
  switch (index) {
    case OMX_IndexParamVideoBitrate:
      error = check<OMX_VIDEO_PARAM_BITRATETYPE>(structure, &output());
      return error != OMX_ErrorNone
                 ? error
                 : setRate(*static_cast<OMX_VIDEO_PARAM_BITRATETYPE*>(structure));
    case OMX_IndexParamVideoAvc:
      error = check<OMX_VIDEO_PARAM_AVCTYPE>(structure, &output());
      return error != OMX_ErrorNone ? error
                                    : setAvc(*static_cast<OMX_VIDEO_PARAM_AVCTYPE*>(structure));
    case OMX_IndexConfigVideoIntraVOPRefresh:
      error = check<OMX_CONFIG_INTRAREFRESHVOPTYPE>(structure, &output());
      if (error == OMX_ErrorNone)
        keyFrameWanted_ = static_cast<OMX_CONFIG_INTRAREFRESHVOPTYPE*>(structure)->IntraRefreshVOP;
      return error;
    default:
      return error;
  }
}

OMX_ERRORTYPE VideoEncode::setRate(const OMX_VIDEO_PARAM_BITRATETYPE& rate) {
  if (rate.eControlRate < OMX_Video_ControlRateDisable ||
      rate.eControlRate > OMX_Video_ControlRateConstantSkipFrames ||
      !codec::board::takesBitrate(rate.nTargetBitrate))
    return OMX_ErrorUnsupportedSetting;
  controlRate_ = rate.eControlRate;
  output().video().nBitrate = rate.nTargetBitrate;
  reopen_ = true;
  return OMX_ErrorNone;
}

OMX_ERRORTYPE VideoEncode::setAvc(const OMX_VIDEO_PARAM_AVCTYPE& avc) {
  if (!knownProfile(avc.eProfile) || levelNumber(avc.eLevel) == 0 || avc.nBFrames != 0)
    return OMX_ErrorUnsupportedSetting;
  avc_ = avc;
  reopen_ = true;
  return OMX_ErrorNone;
}

codec::VideoEncoder::Config VideoEncode::config() {
  const OMX_VIDEO_PORTDEFINITIONTYPE& video = input().video();
  const OMX_U32 rate = video.xFramerate != 0 ? video.xFramerate : defaultRate;
  const OMX_U32 divisor = std::gcd(rate, oneFrameASecond);
  codec::VideoEncoder::Config config;
  config.width = video.nFrameWidth;
  config.height = video.nFrameHeight;
  config.frameRateNum = rate / divisor;
  config.frameRateDen = oneFrameASecond / divisor;
  config.bitrate = controlRate_ == OMX_Video_ControlRateDisable ? 0 : output().video().nBitrate;
  config.constantBitrate = controlRate_ == OMX_Video_ControlRateConstant ||
                           controlRate_ == OMX_Video_ControlRateConstantSkipFrames;
  config.intraPeriod = avc_.nPFrames == 0 ? 0 : avc_.nPFrames + 1;
  config.profile = codecProfile(avc_.eProfile);
  config.level = levelNumber(avc_.eLevel);
  return config;
}

bool VideoEncode::work(Lock& lock) {
  if (parameterSets_.left > 0) return write(lock, parameterSets_);
  if (frame_.left > 0) return write(lock, frame_);
  return takeFrame(lock);
}

bool VideoEncode::hasWork() {
  return !(parameterSets_.left + frame_.left > 0 ? output() : input()).queue.empty();
}

bool VideoEncode::takeFrame(Lock& lock) {
  if (reopen_ && !input().queue.empty()) return open(lock);
  Buffer* const buffer = input().take();
  if (buffer == nullptr) return false;
  if (buffer->header.nFilledLen > 0) encode(lock, *buffer);
  giveBack(lock, input(), *buffer);
  return true;
}

/// Opens the encoder for the frame that waits; one that cannot be opened costs the frame.
bool VideoEncode::open(Lock& lock) {
  const codec::VideoEncoder::Config wanted = config();
  timeStamp_ = input().queue.front()->header.nTimeStamp;
  // A setting that changes while the encoder opens sets it again.
  reopen_ = false;
  bool opened = false;
  {
    const Unlocked unlocked(lock);
    opened = encoder_->open(wanted);
  }
  if (opened) {
    const std::vector<OMX_U8>& sets = encoder_->parameterSets();
    parameterSets_ = {sets.data(), sets.size(), OMX_BUFFERFLAG_CODECCONFIG,
                      OMX_BUFFERFLAG_ENDOFFRAME};
    return true;
  }
  reopen_ = true;
  raiseError(OMX_ErrorUnsupportedSetting, inputPort);
  Buffer* const refused = input().take();
  if (refused != nullptr) giveBack(lock, input(), *refused);
  return true;
}

void VideoEncode::encode(Lock& lock, Buffer& buffer) {
  const OMX_VIDEO_PORTDEFINITIONTYPE& video = input().video();
  const auto stride = static_cast<OMX_U32>(video.nStride);
  if (buffer.header.nAllocLen - buffer.header.nOffset < stride * video.nSliceHeight / 2 * 3) {
    raiseError(OMX_ErrorBadParameter, inputPort);
    return;
  }
  const auto planes = codec::planesOf<const OMX_U8>(buffer.data(), stride, video.nSliceHeight);
  const bool keyFrame = keyFrameWanted_;
  keyFrameWanted_ = false;
  bool encoded = false;
  {
    const Unlocked unlocked(lock);
    encoded = encoder_->encode(planes, microseconds(buffer.header.nTimeStamp), keyFrame);
  }
  if (!encoded) {
    // What the encoder has lost no later frame may refer to.
    reopen_ = true;
    raiseError(OMX_ErrorUndefined, inputPort);
    return;
  }
  timeStamp_ = buffer.header.nTimeStamp;
  frame_ = {encoder_->data(), encoder_->size(),
            encoder_->isKeyFrame() ? OMX_U32{OMX_BUFFERFLAG_SYNCFRAME} : 0,
            OMX_BUFFERFLAG_ENDOFFRAME | (buffer.header.nFlags & OMX_BUFFERFLAG_EOS)};
}

/// Fills the next output buffer with as much as it takes.
bool VideoEncode::write(Lock& lock, Outgoing& outgoing) {
  Buffer* const buffer = output().take();
  if (buffer == nullptr) return false;
  buffer->prepare();
  const auto size =
      static_cast<OMX_U32>(std::min<std::size_t>(outgoing.left, buffer->header.nAllocLen));
  std::memcpy(buffer->header.pBuffer, outgoing.data, size);
  outgoing.data += size;
  outgoing.left -= size;
  buffer->header.nFilledLen = size;
  buffer->header.nFlags = outgoing.flags | (outgoing.left == 0 ? outgoing.lastFlags : 0);
  buffer->header.nTimeStamp = timeStamp_;
  giveBack(lock, output(), *buffer);
  return true;
}

/// A flush drops the bytes that wait; the way to Idle ends the stream.
void VideoEncode::discard(Lock&, Port& port, OMX_COMMANDTYPE reason) {
  if (!port.isInput() || reason == OMX_CommandStateSet) parameterSets_ = frame_ = {};
  if (reason == OMX_CommandStateSet) reopen_ = true;
}

}  // namespace il
