#include "mmal/VideoEncode.h"

#include <algorithm>
#include <cstring>

#include "codec/Environment.h"
#include "mmal/Parameter.h"

namespace mmal {

namespace {

using Profile = codec::VideoEncoder::Profile;

struct Published {
  MMAL_VIDEO_PROFILE_T published;
  Profile profile;
};

constexpr Published profiles[] = {
    {MMAL_VIDEO_PROFILE_H264_BASELINE, Profile::Baseline},
    {MMAL_VIDEO_PROFILE_H264_CONSTRAINED_BASELINE, Profile::ConstrainedBaseline},
    {MMAL_VIDEO_PROFILE_H264_MAIN, Profile::Main},
    {MMAL_VIDEO_PROFILE_H264_HIGH, Profile::High},
};

/// @return false for one that the encoder does not have
bool profileOf(MMAL_VIDEO_PROFILE_T published, Profile& profile) {
  for (const Published& each : profiles) {
    if (each.published != published) continue;
    profile = each.profile;
    return true;
  }
  return false;
}

/// Ten times the level's number, from MMAL_VIDEO_LEVEL_H264_1 on; 9 is level 1b.
constexpr unsigned levels[] = {10, 9, 11, 12, 13, 20, 21, 22, 30, 31, 32, 40, 41, 42, 50, 51};
constexpr unsigned levelCount = sizeof(levels) / sizeof(levels[0]);

constexpr std::uint32_t smallestOutput = 1024;
constexpr std::uint32_t defaultOutput = 64 * 1024;

unsigned positive(std::int32_t value) {
  return value > 0 ? static_cast<unsigned>(value) : 0;
}

}  // namespace

VideoEncode::VideoEncode() : Component(publishedName) {
  input0().committed.encoding = MMAL_ENCODING_I420;
  output0().committed.encoding = MMAL_ENCODING_H264;
}

MMAL_STATUS_T VideoEncode::checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const {
  const MMAL_FOURCC_T encoding = target.isInput() ? MMAL_ENCODING_I420 : MMAL_ENCODING_H264;
  if (format.encoding != encoding) return MMAL_EINVAL;
  if (target.isOutput())
    return codec::board::takesBitrate(format.bitrate) ? MMAL_SUCCESS : MMAL_EINVAL;
  const MMAL_VIDEO_FORMAT_T& video = format.es->video;
  const double rate =
      video.frame_rate.den > 0 ? double(video.frame_rate.num) / video.frame_rate.den : 0;
  if (!codec::board::takesVideo(video.width, video.height) ||
      !codec::board::takesRate(video.width, video.height, rate))
    return MMAL_EINVAL;
  if (video.frame_rate.num < 0 || video.frame_rate.den < 0) return MMAL_EINVAL;
  if (video.par.num < 0 || video.par.den < 0) return MMAL_EINVAL;
  return rawGeometryFits(video) ? MMAL_SUCCESS : MMAL_EINVAL;
}

void VideoEncode::setRequirements() {
  const MMAL_VIDEO_FORMAT_T& raw = input0().committed.video();
  const std::uint32_t frame = rawFrameBytes(MMAL_ENCODING_I420, raw.width, raw.height);
  input0().require(2, std::max(frame, 1u), std::max(frame, 1u));
  // The parameter sets take a buffer of their own before the first frame.
  output0().require(3, std::max(frame / 4, defaultOutput), smallestOutput);
  output0().buffer_num_min = 2;
  reopen_ = true;
}

MMAL_STATUS_T VideoEncode::setProfile(const MMAL_PARAMETER_HEADER_T& parameter) {
  MMAL_PARAMETER_VIDEO_PROFILE_T wanted;
  Profile profile;
  if (!read(parameter, wanted) || !profileOf(wanted.profile[0].profile, profile))
    return MMAL_EINVAL;
  const unsigned level = static_cast<unsigned>(wanted.profile[0].level) - MMAL_VIDEO_LEVEL_H264_1;
  if (level >= levelCount) return MMAL_EINVAL;
  profile_ = wanted.profile[0];
  reopen_ = true;
  return MMAL_SUCCESS;
}

MMAL_STATUS_T VideoEncode::setOwnParameter(Port& target, const MMAL_PARAMETER_HEADER_T& parameter) {
  if (!target.isOutput()) return MMAL_ENOSYS;
  MMAL_PARAMETER_UINT32_T number{};
  const bool hasNumber = read(parameter, number);
  switch (parameter.id) {
    case MMAL_PARAMETER_PROFILE:
      if (target.is_enabled != 0) return MMAL_EINVAL;
      return setProfile(parameter);
    case MMAL_PARAMETER_INTRAPERIOD:
      if (target.is_enabled != 0 || !hasNumber) return MMAL_EINVAL;
      intraPeriod_ = number.value;
      reopen_ = true;
      break;
    case MMAL_PARAMETER_RATECONTROL:
      if (target.is_enabled != 0 || !hasNumber ||
          number.value > MMAL_VIDEO_RATECONTROL_CONSTANT_SKIP_FRAMES)
        return MMAL_EINVAL;
      rateControl_ = static_cast<MMAL_VIDEO_RATECONTROL_T>(number.value);
      reopen_ = true;
      break;
    case MMAL_PARAMETER_VIDEO_BIT_RATE:
      if (!hasNumber) return MMAL_EINVAL;
      target.committed.bitrate = target.format->bitrate = number.value;
      reopen_ = true;
      break;
    case MMAL_PARAMETER_VIDEO_REQUEST_I_FRAME:
      if (!hasNumber) return MMAL_EINVAL;
      keyFrameWanted_ = number.value != MMAL_FALSE;
      break;
    default:
      return MMAL_ENOSYS;
  }
  return MMAL_SUCCESS;
}

MMAL_STATUS_T VideoEncode::getOwnParameter(Port& target, MMAL_PARAMETER_HEADER_T& parameter) {
  if (!target.isOutput()) return MMAL_ENOSYS;
  switch (parameter.id) {
    case MMAL_PARAMETER_PROFILE:
      return fill(parameter, MMAL_PARAMETER_VIDEO_PROFILE_T{{}, {profile_}});
    case MMAL_PARAMETER_INTRAPERIOD:
      return fill(parameter, MMAL_PARAMETER_UINT32_T{{}, intraPeriod_});
    case MMAL_PARAMETER_RATECONTROL:
      return fill(parameter, MMAL_PARAMETER_VIDEO_RATECONTROL_T{{}, rateControl_});
    case MMAL_PARAMETER_VIDEO_BIT_RATE:
      return fill(parameter, MMAL_PARAMETER_UINT32_T{{}, target.committed.bitrate});
    default:
      return MMAL_ENOSYS;
  }
}

std::vector<MMAL_FOURCC_T> VideoEncode::encodings(const Port& target) const {
  return {target.isInput() ? MMAL_ENCODING_I420 : MMAL_ENCODING_H264};
}

bool VideoEncode::work() {
  if (config_.waiting) return write(config_);
  if (frame_.waiting) return write(frame_);
  Header* const in = front(input0());
  if (in == nullptr) return false;
  const bool last = (in->flags & MMAL_BUFFER_HEADER_FLAG_EOS) != 0;
  bool good = true;
  if (in->length > 0) good = open() && encode(*in);
  if (last && !frame_.waiting) {
    frame_ = Outgoing{};
    frame_.pts = in->pts;
    frame_.waiting = true;
  }
  frame_.last = last;
  giveBack(input0());
  if (!good) raiseError(MMAL_EIO);
  return true;
}

// Starts the encoder where its settings are not the client's yet; its parameter sets go out first.
bool VideoEncode::open() {
  codec::VideoEncoder::Config config;
  {
    const auto held = lock();
    if (!reopen_ && encoder_->isOpen()) return true;
    reopen_ = false;
    const MMAL_VIDEO_FORMAT_T& raw = input0().committed.video();
    const MMAL_RECT_T crop = pictureOf(raw);
    config.width = static_cast<unsigned>(crop.width);
    config.height = static_cast<unsigned>(crop.height);
    if (raw.frame_rate.num > 0 && raw.frame_rate.den > 0) {
      config.frameRateNum = positive(raw.frame_rate.num);
      config.frameRateDen = positive(raw.frame_rate.den);
    }
    if (raw.par.num > 0 && raw.par.den > 0) {
      config.aspectNum = positive(raw.par.num);
      config.aspectDen = positive(raw.par.den);
    }
    config.bitrate = output0().committed.bitrate;
    config.intraPeriod = intraPeriod_;
    profileOf(profile_.profile, config.profile);
    config.level = levels[profile_.level - MMAL_VIDEO_LEVEL_H264_1];
    config.constantBitrate = rateControl_ == MMAL_VIDEO_RATECONTROL_CONSTANT ||
                             rateControl_ == MMAL_VIDEO_RATECONTROL_CONSTANT_SKIP_FRAMES;
  }
  if (!encoder_->open(config)) return false;
  config_ = Outgoing{};
  config_.data = encoder_->parameterSets().data();
  config_.size = encoder_->parameterSets().size();
  config_.flags = MMAL_BUFFER_HEADER_FLAG_CONFIG;
  config_.waiting = true;
  return true;
}

// With the lock held.
codec::ConstPlanes VideoEncode::planesIn(const Header& in) {
  const MMAL_VIDEO_FORMAT_T& raw = input0().committed.video();
  const MMAL_RECT_T crop = pictureOf(raw);
  const std::size_t x = static_cast<std::size_t>(crop.x) & ~std::size_t{1};
  const std::size_t y = static_cast<std::size_t>(crop.y) & ~std::size_t{1};
  // A buffer whose data starts so late that the frame would not fit is read from its start.
  const std::uint32_t frame = rawFrameBytes(MMAL_ENCODING_I420, raw.width, raw.height);
  const std::uint32_t offset = in.alloc_size - in.offset >= frame ? in.offset : 0;
  auto planes = codec::planesOf<const std::uint8_t>(in.data + offset, raw.width, raw.height);
  planes.y += y * planes.yStride + x;
  planes.u += y / 2 * planes.uvStride + x / 2;
  planes.v += y / 2 * planes.uvStride + x / 2;
  return planes;
}

bool VideoEncode::encode(const Header& in) {
  bool forceKeyFrame;
  codec::ConstPlanes planes;
  {
    const auto held = lock();
    forceKeyFrame = std::exchange(keyFrameWanted_, false);
    planes = planesIn(in);
  }
  if (!encoder_->encode(planes, in.pts, forceKeyFrame)) {
    // What the encoder has lost no later frame may refer to.
    const auto held = lock();
    reopen_ = true;
    return false;
  }
  if (encoder_->size() == 0) return true;
  frame_ = Outgoing{};
  frame_.data = encoder_->data();
  frame_.size = encoder_->size();
  frame_.pts = encoder_->pts();
  if (encoder_->isKeyFrame()) frame_.flags = MMAL_BUFFER_HEADER_FLAG_KEYFRAME;
  frame_.waiting = true;
  return true;
}

// Fills the next output buffer. Every piece of a key frame carries its mark.
bool VideoEncode::write(Outgoing& outgoing) {
  Header* const out = front(output0());
  if (out == nullptr) return false;
  const std::size_t rest = outgoing.size - outgoing.sent;
  const std::size_t part = std::min<std::size_t>(rest, out->alloc_size);
  if (part > 0) std::memcpy(out->data, outgoing.data + outgoing.sent, part);
  out->length = static_cast<std::uint32_t>(part);
  out->flags = outgoing.flags;
  out->pts = outgoing.pts;
  if (outgoing.sent == 0 && outgoing.size > 0) out->flags |= MMAL_BUFFER_HEADER_FLAG_FRAME_START;
  outgoing.sent += part;
  if (part == rest) {
    if (outgoing.size > 0) out->flags |= MMAL_BUFFER_HEADER_FLAG_FRAME_END;
    if (outgoing.last) out->flags |= MMAL_BUFFER_HEADER_FLAG_EOS;
    outgoing.waiting = false;
  }
  giveBack(output0());
  return true;
}

// After a gap in either stream it goes on with a key frame after its parameter sets; a frame that
// had not gone out whole is void.
void VideoEncode::discard(Port&) {
  config_.waiting = false;
  frame_.waiting = false;
  reopen_ = true;
}

}  // namespace mmal
