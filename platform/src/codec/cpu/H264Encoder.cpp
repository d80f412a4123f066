#include "codec/cpu/H264Encoder.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <thread>

#include "codec/Environment.h"

extern "C" {
#include <x264.h>
}

namespace codec {

namespace {

constexpr unsigned largestSide = 16384;
constexpr unsigned mostThreads = 4;
constexpr unsigned smallPicture = 640 * 360;  // below this a second thread costs more than it gives

void silent(void*, int, const char*, va_list) {}

const char* profileName(H264Encoder::Profile profile) {
  switch (profile) {
    case H264Encoder::Profile::Baseline:
    case H264Encoder::Profile::ConstrainedBaseline:
      return "baseline";
    case H264Encoder::Profile::Main:
      return "main";
    case H264Encoder::Profile::High:
      break;
  }
  return "high";
}

/// x264 refuses others too, but leaks a little when it does.
bool isLevel(unsigned level) {
  for (const x264_level_t* known = x264_levels; known->level_idc != 0; ++known)
    if (known->level_idc == level) return true;
  return false;
}

const char* objection(const H264Encoder::Config& config) {
  if (config.width == 0 || config.height == 0) return "an empty picture";
  if (config.width > largestSide || config.height > largestSide)
    return "a side longer than 16,384 pixels";
  if (config.frameRateNum == 0 || config.frameRateDen == 0) return "no frame rate";
  if (!isLevel(config.level)) return "no such level";
  return nullptr;
}

void setRate(x264_param_t& param, const H264Encoder::Config& config) {
  if (config.bitrate == 0) {
    param.rc.i_rc_method = X264_RC_CRF;
    return;
  }
  const int kilobits = static_cast<int>(std::max(1u, (config.bitrate + 500) / 1000));
  param.rc.i_rc_method = X264_RC_ABR;
  param.rc.i_bitrate = kilobits;
  param.rc.i_vbv_max_bitrate = kilobits;
  // What a receiver has to hold back: a second, or a quarter where the rate is to be constant.
  param.rc.i_vbv_buffer_size = std::max(1, config.constantBitrate ? kilobits / 4 : kilobits);
}

void setTiming(x264_param_t& param, const H264Encoder::Config& config) {
  param.b_vfr_input = 0;
  param.i_fps_num = config.frameRateNum;
  param.i_fps_den = config.frameRateDen;
  param.i_timebase_num = config.frameRateDen;
  param.i_timebase_den = config.frameRateNum;
  param.vui.i_sar_width = static_cast<int>(config.aspectNum);
  param.vui.i_sar_height = static_cast<int>(config.aspectDen);
  const unsigned second =
      std::max(1u, (config.frameRateNum + config.frameRateDen / 2) / config.frameRateDen);
  param.i_keyint_max = static_cast<int>(config.intraPeriod != 0 ? config.intraPeriod : second);
  param.i_keyint_min = param.i_keyint_max;
  // Key frames come when they are due and at no other time.
  param.i_scenecut_threshold = 0;
}

}  // namespace

struct H264Encoder::Impl {
  x264_t* encoder = nullptr;
  Config config;
  std::int64_t frames = 0;
  std::vector<std::uint8_t> parameterSets;
  std::vector<std::uint8_t> paddedLuma;  // luma of an odd-sized picture with its edge repeated
  std::vector<std::uint8_t> joined;      // a key frame behind its parameter sets
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  bool keyFrame = false;
  std::int64_t pts = 0;
  std::string error;

  ~Impl() { close(); }

  bool fail(const char* why) {
    error = why;
    return false;
  }
  void close();
  bool start();
  bool readParameterSets();
  const std::uint8_t* padLuma(const ConstPlanes& frame);
  void describe(const ConstPlanes& frame, x264_picture_t& picture);
  void setOutput(const std::uint8_t* payload, std::size_t bytes);
};

void H264Encoder::Impl::close() {
  if (encoder != nullptr) x264_encoder_close(encoder);
  encoder = nullptr;
  frames = 0;
  data = nullptr;
  size = 0;
  keyFrame = false;
  parameterSets.clear();
}

bool H264Encoder::Impl::start() {
  x264_param_t param;
  if (x264_param_default_preset(&param, "superfast", "zerolatency") != 0)
    return fail("x264 lacks its presets");
  param.i_log_level = X264_LOG_NONE;
  param.pf_log = silent;
  param.i_width = static_cast<int>(roundUp(config.width, 2));
  param.i_height = static_cast<int>(roundUp(config.height, 2));
  param.i_csp = X264_CSP_I420;
  param.i_level_idc = static_cast<int>(config.level);
  param.b_annexb = 1;
  param.b_repeat_headers = 0;
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  param.i_threads = config.width * config.height < smallPicture
                        ? 1
                        : static_cast<int>(std::min(cores, mostThreads));
  if (const unsigned asked = threadsAsked(); asked > 0) {
    param.i_threads = static_cast<int>(asked);
    // With one thread it is about the same bytes on every machine.
    param.b_cpu_independent = 1;
  }
  setTiming(param, config);
  setRate(param, config);
  if (x264_param_apply_profile(&param, profileName(config.profile)) != 0)
    return fail("x264 lacks the profile");
  encoder = x264_encoder_open(&param);
  if (encoder == nullptr) return fail("x264 refuses the settings");
  return readParameterSets() || fail("x264 gives no parameter sets");
}

bool H264Encoder::Impl::readParameterSets() {
  x264_nal_t* nals = nullptr;
  int count = 0;
  if (x264_encoder_headers(encoder, &nals, &count) < 0) return false;
  for (int i = 0; i < count; ++i)
    // The rest is x264's signature.
    if (nals[i].i_type == NAL_SPS || nals[i].i_type == NAL_PPS)
      parameterSets.insert(parameterSets.end(), nals[i].p_payload,
                           nals[i].p_payload + nals[i].i_payload);
  return !parameterSets.empty();
}

/// x264 takes even sizes only and would read the column and row that an odd one lacks.
const std::uint8_t* H264Encoder::Impl::padLuma(const ConstPlanes& frame) {
  const std::size_t stride = roundUp(config.width, 2);
  const unsigned rows = roundUp(config.height, 2);
  paddedLuma.resize(stride * rows);
  for (unsigned y = 0; y < rows; ++y) {
    const std::uint8_t* from =
        frame.y + std::size_t{std::min(y, config.height - 1)} * frame.yStride;
    std::uint8_t* to = &paddedLuma[y * stride];
    std::memcpy(to, from, config.width);
    to[stride - 1] = from[config.width - 1];
  }
  return paddedLuma.data();
}

void H264Encoder::Impl::describe(const ConstPlanes& frame, x264_picture_t& picture) {
  x264_picture_init(&picture);
  x264_image_t& image = picture.img;
  image.i_csp = X264_CSP_I420;
  image.i_plane = 3;
  const bool odd = config.width % 2 != 0 || config.height % 2 != 0;
  const std::uint8_t* luma = odd ? padLuma(frame) : frame.y;
  // x264 only reads them; its interface merely lacks the const.
  image.plane[0] = const_cast<std::uint8_t*>(luma);
  image.plane[1] = const_cast<std::uint8_t*>(frame.u);
  image.plane[2] = const_cast<std::uint8_t*>(frame.v);
  image.i_stride[0] = static_cast<int>(odd ? roundUp(config.width, 2) : frame.yStride);
  image.i_stride[1] = image.i_stride[2] = static_cast<int>(frame.uvStride);
}

void H264Encoder::Impl::setOutput(const std::uint8_t* payload, std::size_t bytes) {
  data = payload;
  size = bytes;
  if (!keyFrame || frames == 0) return;
  joined.assign(parameterSets.begin(), parameterSets.end());
  joined.insert(joined.end(), payload, payload + bytes);
  data = joined.data();
  size = joined.size();
}

H264Encoder::H264Encoder() : impl_(std::make_unique<Impl>()) {}
H264Encoder::~H264Encoder() = default;

bool H264Encoder::open(const Config& config) try {
  Impl& impl = *impl_;
  impl.close();
  impl.error.clear();
  impl.config = config;
  const char* why = objection(config);
  if (why != nullptr) return impl.fail(why);
  if (impl.start()) return true;
  const std::string reason = impl.error;
  impl.close();
  return impl.fail(reason.c_str());
} catch (const std::bad_alloc&) {
  impl_->close();
  return false;
}

bool H264Encoder::isOpen() const {
  return impl_->encoder != nullptr;
}

const std::vector<std::uint8_t>& H264Encoder::parameterSets() const {
  return impl_->parameterSets;
}

bool H264Encoder::encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) try {
  Impl& impl = *impl_;
  impl.data = nullptr;
  impl.size = 0;
  impl.keyFrame = false;
  if (impl.encoder == nullptr) return impl.fail("not open");
  if (frame.y == nullptr || frame.u == nullptr || frame.v == nullptr)
    return impl.fail("a plane is missing");

  x264_picture_t in, out;
  impl.describe(frame, in);
  // A time stamp of our own: the caller's may be anything, even the same twice.
  in.i_pts = impl.frames;
  in.i_type = forceKeyFrame ? X264_TYPE_IDR : X264_TYPE_AUTO;

  x264_nal_t* nals = nullptr;
  int count = 0;
  const int bytes = x264_encoder_encode(impl.encoder, &nals, &count, &in, &out);
  if (bytes < 0) return impl.fail("x264 failed to encode the frame");
  impl.pts = pts;
  impl.keyFrame = bytes > 0 && out.b_keyframe != 0;
  // x264 lays the units of a frame one behind the other.
  if (bytes > 0) impl.setOutput(nals[0].p_payload, static_cast<std::size_t>(bytes));
  ++impl.frames;
  return true;
} catch (const std::bad_alloc&) {
  impl_->data = nullptr;
  impl_->size = 0;
  return false;
}

const std::uint8_t* H264Encoder::data() const {
  return impl_->data;
}
std::size_t H264Encoder::size() const {
  return impl_->size;
}
bool H264Encoder::isKeyFrame() const {
  return impl_->keyFrame;
}
std::int64_t H264Encoder::pts() const {
  return impl_->pts;
}
const std::string& H264Encoder::error() const {
  return impl_->error;
}

}  // namespace codec
