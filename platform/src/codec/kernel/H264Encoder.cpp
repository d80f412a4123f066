#include "codec/kernel/H264Encoder.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "codec/H264Bits.h"
#include "codec/ParameterSets.h"
#include "codec/kernel/Devices.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr std::size_t leastRoom = 256 * 1024;
constexpr std::size_t framesInside = 64;
constexpr std::uint8_t startCode[] = {0, 0, 0, 1};
constexpr std::uint8_t grey = 128;

/// Ten times the levels' numbers, in the order of the kernel's menu; 9 is level 1b.
constexpr unsigned levels[] = {10, 9,  11, 12, 13, 20, 21, 22, 30, 31,
                               32, 40, 41, 42, 50, 51, 52, 60, 61, 62};

std::vector<int> profilesFor(VideoEncoder::Profile profile) {
  constexpr int constrained = V4L2_MPEG_VIDEO_H264_PROFILE_CONSTRAINED_BASELINE;
  constexpr int baseline = V4L2_MPEG_VIDEO_H264_PROFILE_BASELINE;
  constexpr int main = V4L2_MPEG_VIDEO_H264_PROFILE_MAIN;
  switch (profile) {
    case VideoEncoder::Profile::Baseline:
      return {baseline, constrained};
    case VideoEncoder::Profile::ConstrainedBaseline:
      return {constrained, baseline};
    case VideoEncoder::Profile::Main:
      return {main, constrained, baseline};
    case VideoEncoder::Profile::High:
      break;
  }
  return {V4L2_MPEG_VIDEO_H264_PROFILE_HIGH, main, constrained, baseline};
}

unsigned typeOf(std::uint8_t header) {
  return header & 31;
}

bool isSlice(unsigned type) {
  return type == NalType::Slice || type == NalType::SliceDataA || type == NalType::IdrSlice;
}

/// The type of a unit's first slice, 0 when there is none.
unsigned firstSlice(const std::uint8_t* data, std::size_t size) {
  std::size_t at = nextNal(data, 0, size);
  while (at < size && !isSlice(typeOf(data[at]))) at = nextNal(data, at + 1, size);
  return at < size ? typeOf(data[at]) : 0;
}

}  // namespace

bool H264Encoder::fail(const std::string& why) {
  error_ = why;
  return false;
}

bool H264Encoder::failForMemory() {
  encoder_.close();
  data_ = nullptr;
  size_ = 0;
  error_ = "no memory";  // short enough to need none
  return false;
}

bool H264Encoder::open(const Config& config) try {
  encoder_.close();
  error_.clear();
  config_ = config;
  data_ = nullptr;
  size_ = 0;
  keyFrame_ = false;
  parameterSets_.clear();
  if (config.width == 0 || config.height == 0) return fail("an empty picture");
  config_.width = roundUp(config.width, 2);
  config_.height = roundUp(config.height, 2);
  const Work work{true, {V4L2_PIX_FMT_H264}, config_.width, config_.height};
  std::vector<std::string> reasons;
  for (const Offer& offer : offersFor(work, reasons)) {
    if (openOn(offer.path)) return true;
    reasons.push_back(error_.empty() ? encoder_.error() : error_);
    error_.clear();
    encoder_.close();
  }
  std::string why = "no device encodes H.264";
  for (const std::string& reason : reasons) why += "; " + reason;
  return fail(why);
} catch (const std::bad_alloc&) {
  return failForMemory();
}

bool H264Encoder::openOn(const std::string& path, const Config& config) {
  config_ = config;
  return openOn(path);
}

bool H264Encoder::openOn(const std::string& path) {
  M2mEncoder::Setup setup;
  setup.coded = V4L2_PIX_FMT_H264;
  setup.width = config_.width;
  setup.height = config_.height;
  setup.codedSize = leastRoom + std::size_t{config_.width} * config_.height;
  setup.rateNum = std::max(1u, config_.frameRateNum);
  setup.rateDen = std::max(1u, config_.frameRateDen);
  if (!encoder_.open(path, setup)) return false;
  configure();
  stamps_.assign(framesInside, 0);
  return encoder_.start() && prime();
}

/// A control that a device lacks or refuses is no reason not to work with it.
bool H264Encoder::set(const char* name, std::uint32_t id, std::int64_t value) {
  const bool taken = encoder_.device().setControl(id, value);
  if (!taken) lacks(name, id);
  return taken;
}

void H264Encoder::lacks(const char* name, std::uint32_t id) {
  Control control;
  const bool there = encoder_.device().findControl(id, control);
  notTaken_.push_back(name + std::string(there ? " (refused)" : " (not there)"));
}

void H264Encoder::configure() {
  M2mDevice& device = encoder_.device();
  notTaken_.clear();
  configureShape();
  configureRate();
  const unsigned second =
      std::max(1u, (config_.frameRateNum + config_.frameRateDen / 2) / config_.frameRateDen);
  const unsigned period = config_.intraPeriod != 0 ? config_.intraPeriod : second;
  device.setControl(V4L2_CID_MPEG_VIDEO_B_FRAMES, 0);
  if (!device.setControl(V4L2_CID_MPEG_VIDEO_GOP_SIZE, period) &&
      !device.setControl(V4L2_CID_MPEG_VIDEO_H264_I_PERIOD, period))
    lacks("intra period", V4L2_CID_MPEG_VIDEO_GOP_SIZE);
  set("headers before each key frame", V4L2_CID_MPEG_VIDEO_REPEAT_SEQ_HEADER, 1);
  Control button;
  if (!device.findControl(V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, button))
    lacks("key frame on demand", V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME);
  device.setControl(V4L2_CID_MPEG_VIDEO_HEADER_MODE,
                    V4L2_MPEG_VIDEO_HEADER_MODE_JOINED_WITH_1ST_FRAME);
}

void H264Encoder::configureShape() {
  M2mDevice& device = encoder_.device();
  const std::vector<int> profiles = profilesFor(config_.profile);
  if (std::none_of(profiles.begin(), profiles.end(), [&](int profile) {
        return device.setControl(V4L2_CID_MPEG_VIDEO_H264_PROFILE, profile);
      }))
    lacks("profile", V4L2_CID_MPEG_VIDEO_H264_PROFILE);
  // The level, else the next higher that the device has, else the next lower.
  const auto wanted = std::find(std::begin(levels), std::end(levels), config_.level);
  const int first = static_cast<int>(wanted - std::begin(levels));
  const int count = static_cast<int>(std::size(levels));
  bool taken = false;
  for (int level = first; level < count && !taken; ++level)
    taken = device.hasMenuEntry(V4L2_CID_MPEG_VIDEO_H264_LEVEL, level) &&
            device.setControl(V4L2_CID_MPEG_VIDEO_H264_LEVEL, level);
  for (int level = first - 1; level >= 0 && !taken; --level)
    taken = device.hasMenuEntry(V4L2_CID_MPEG_VIDEO_H264_LEVEL, level) &&
            device.setControl(V4L2_CID_MPEG_VIDEO_H264_LEVEL, level);
  if (!taken) lacks("level", V4L2_CID_MPEG_VIDEO_H264_LEVEL);
  if (config_.aspectNum == config_.aspectDen) return;
  device.setControl(V4L2_CID_MPEG_VIDEO_H264_VUI_SAR_ENABLE, 1);
  device.setControl(V4L2_CID_MPEG_VIDEO_H264_VUI_SAR_IDC,
                    V4L2_MPEG_VIDEO_H264_VUI_SAR_IDC_EXTENDED);
  if (set("aspect ratio", V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_WIDTH, config_.aspectNum))
    set("aspect ratio", V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_HEIGHT, config_.aspectDen);
}

void H264Encoder::configureRate() {
  M2mDevice& device = encoder_.device();
  constexpr std::uint64_t pixelsPerBit = 8;  // what looks good where no rate was asked for
  std::uint64_t rate = config_.bitrate;
  int mode =
      config_.constantBitrate ? V4L2_MPEG_VIDEO_BITRATE_MODE_CBR : V4L2_MPEG_VIDEO_BITRATE_MODE_VBR;
  if (rate == 0) {
    rate = std::uint64_t{config_.width} * config_.height * config_.frameRateNum /
           config_.frameRateDen / pixelsPerBit;
    if (device.hasMenuEntry(V4L2_CID_MPEG_VIDEO_BITRATE_MODE, V4L2_MPEG_VIDEO_BITRATE_MODE_CQ))
      mode = V4L2_MPEG_VIDEO_BITRATE_MODE_CQ;
  }
  device.setControl(V4L2_CID_MPEG_VIDEO_FRAME_RC_ENABLE, 1);
  set("bit rate mode", V4L2_CID_MPEG_VIDEO_BITRATE_MODE, mode);
  Control range;
  auto wanted = static_cast<std::int64_t>(std::min<std::uint64_t>(rate, INT32_MAX));
  if (device.findControl(V4L2_CID_MPEG_VIDEO_BITRATE, range))
    wanted = std::clamp(wanted, range.minimum, std::max(range.minimum, range.maximum));
  set("bit rate", V4L2_CID_MPEG_VIDEO_BITRATE, wanted);
}

/// Encodes a grey frame for its parameter sets.
bool H264Encoder::prime() {
  const std::size_t luma = std::size_t{config_.width} * config_.height;
  const std::vector<std::uint8_t> frame(luma + luma / 2, grey);
  if (!submit(planesOf(frame.data(), config_.width, config_.height))) return false;
  ParameterSets sets;
  bool seen = false;
  M2mEncoder::Outcome outcome = encoder_.collect();
  for (unsigned tries = 0; tries < framesInside && !seen; ++tries) {
    if (outcome == M2mEncoder::Outcome::Data) {
      const Buffer& buffer = encoder_.data();
      sets.add(buffer.data[0], buffer.used[0]);
      seen = firstSlice(buffer.data[0], buffer.used[0]) != 0;
    }
    if (!seen) outcome = encoder_.drain();
    if (outcome == M2mEncoder::Outcome::Failed) return fail(encoder_.error());
    if (outcome == M2mEncoder::Outcome::Dropped) break;
  }
  parameterSets_ = sets.annexB();
  first_ = true;
  if (parameterSets_.empty()) return fail(encoder_.device().path() + ": gives no parameter sets");
  return encoder_.restart();
}

bool H264Encoder::submit(const ConstPlanes& frame) {
  Buffer* const buffer = encoder_.inputBuffer();
  return buffer != nullptr &&
         writeFrame(encoder_.inputFormat(), frame, config_.width, config_.height, *buffer) &&
         encoder_.submit(*buffer);
}

bool H264Encoder::encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) try {
  data_ = nullptr;
  size_ = 0;
  keyFrame_ = false;
  if (!isOpen()) return fail("not open");
  if (frame.y == nullptr || frame.u == nullptr || frame.v == nullptr)
    return fail("a plane is missing");
  if (forceKeyFrame && !first_ &&
      !encoder_.device().setControl(V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1) && !encoder_.restart())
    return fail(encoder_.error());
  if (submit(frame)) {
    stamps_[encoder_.serial() % framesInside] = pts;
    if (collect()) return true;
  }
  // What a device does after it has failed is not known; the next open() starts afresh.
  const std::string why = encoder_.error();
  encoder_.close();
  return fail(why);
} catch (const std::bad_alloc&) {
  return failForMemory();
}

bool H264Encoder::collect() {
  joined_.clear();
  for (;;) {
    const M2mEncoder::Outcome outcome = encoder_.collect();
    if (outcome == M2mEncoder::Outcome::Failed) return false;
    if (outcome == M2mEncoder::Outcome::Dropped) return true;
    const Buffer& buffer = encoder_.data();
    if (firstSlice(buffer.data[0], buffer.used[0]) != 0) {
      hand(buffer);
      return true;
    }
    joined_.insert(joined_.end(), buffer.data[0], buffer.data[0] + buffer.used[0]);
    encoder_.expectMore();
  }
}

/// Makes the parameter sets of a key frame what was promised: none in the first, all in the others.
void H264Encoder::hand(const Buffer& buffer) {
  const bool pieces = !joined_.empty();
  if (pieces) joined_.insert(joined_.end(), buffer.data[0], buffer.data[0] + buffer.used[0]);
  data_ = pieces ? joined_.data() : buffer.data[0];
  size_ = pieces ? joined_.size() : buffer.used[0];
  pts_ = stamps_[buffer.serial % framesInside];
  keyFrame_ = firstSlice(data_, size_) == NalType::IdrSlice;
  const bool first = first_;
  first_ = false;
  if (!keyFrame_) return;
  ParameterSets sets;
  sets.add(data_, size_);
  const std::vector<std::uint8_t> inBand = sets.annexB();
  std::vector<std::uint8_t> whole;
  if (first && inBand == parameterSets_) {
    for (std::size_t at = nextNal(data_, 0, size_); at < size_;) {
      const std::size_t next = nextNal(data_, at + 1, size_);
      std::size_t end = next < size_ ? next - 3 : size_;
      while (end > at && data_[end - 1] == 0) --end;
      const unsigned type = typeOf(data_[at]);
      if (type != NalType::Sps && type != NalType::Pps) {
        whole.insert(whole.end(), std::begin(startCode), std::end(startCode));
        whole.insert(whole.end(), data_ + at, data_ + end);
      }
      at = next;
    }
  } else if (!first && inBand.empty()) {
    whole = parameterSets_;
    whole.insert(whole.end(), data_, data_ + size_);
  } else {
    return;
  }
  joined_ = std::move(whole);
  data_ = joined_.data();
  size_ = joined_.size();
}

}  // namespace codec::kernel
