#include "H264Peers.h"

#include <libyuv.h>
#include <tessera/Basics.h>

#include <algorithm>
#include <thread>

#include "Content.h"
#include "Work.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <x264.h>
}

namespace bench {

struct X264::Impl {
  x264_t* encoder = nullptr;
  x264_picture_t picture{};
  ~Impl() {
    if (encoder != nullptr) x264_encoder_close(encoder);
  }
};

X264::X264(const H264Settings& settings) : impl_(std::make_unique<Impl>()) {
  x264_param_t param;
  require(x264_param_default_preset(&param, "superfast", "zerolatency") == 0,
          "x264 lacks its presets");
  param.i_log_level = X264_LOG_NONE;
  param.i_width = settings.width;
  param.i_height = settings.height;
  param.i_csp = X264_CSP_I420;
  param.i_level_idc = settings.level;
  param.b_annexb = 1;
  param.b_repeat_headers = 1;
  param.i_threads = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
  param.b_vfr_input = 0;
  param.i_fps_num = static_cast<std::uint32_t>(settings.framesPerSecond);
  param.i_fps_den = 1;
  param.i_keyint_max = settings.framesPerSecond;
  param.i_keyint_min = settings.framesPerSecond;
  param.i_scenecut_threshold = 0;
  param.rc.i_rc_method = X264_RC_ABR;
  param.rc.i_bitrate = settings.bitrate / 1000;
  param.rc.i_vbv_max_bitrate = settings.bitrate / 1000;
  param.rc.i_vbv_buffer_size = settings.bitrate / 1000;
  require(x264_param_apply_profile(&param, "high") == 0, "x264 lacks the profile");
  impl_->encoder = x264_encoder_open(&param);
  require(impl_->encoder != nullptr, "x264 does not open");
  x264_picture_init(&impl_->picture);
  impl_->picture.img.i_csp = X264_CSP_I420;
  impl_->picture.img.i_plane = 3;
}

X264::~X264() = default;

std::size_t X264::encode(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                         int stride, const std::uint8_t** stream) {
  x264_picture_t& in = impl_->picture;
  const std::uint8_t* const planes[] = {y, u, v};
  for (int i = 0; i < 3; ++i) {
    in.img.plane[i] = const_cast<std::uint8_t*>(planes[i]);
    in.img.i_stride[i] = i == 0 ? stride : stride / 2;
  }
  x264_picture_t out;
  x264_nal_t* units = nullptr;
  int count = 0;
  const int size = x264_encoder_encode(impl_->encoder, &units, &count, &in, &out);
  require(size > 0, "x264 gives no frame");
  ++in.i_pts;
  *stream = units[0].p_payload;
  return static_cast<std::size_t>(size);
}

struct Avcodec::Impl {
  AVCodecContext* context = nullptr;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  ~Impl() {
    avcodec_free_context(&context);
    av_packet_free(&packet);
    av_frame_free(&frame);
  }
};

Avcodec::Avcodec() : impl_(std::make_unique<Impl>()) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  impl_->context = avcodec_alloc_context3(codec);
  require(impl_->context != nullptr && impl_->packet != nullptr && impl_->frame != nullptr,
          "libavcodec has no memory");
  impl_->context->flags |= AV_CODEC_FLAG_UNALIGNED;
  impl_->context->thread_count = 1;
  require(avcodec_open2(impl_->context, codec, nullptr) == 0, "libavcodec does not open");
}

Avcodec::~Avcodec() = default;

bool Avcodec::decode(const std::uint8_t* unit, std::size_t size, std::uint8_t* picture) {
  Impl& impl = *impl_;
  impl.packet->data = const_cast<std::uint8_t*>(unit);
  impl.packet->size = static_cast<int>(size);
  require(avcodec_send_packet(impl.context, impl.packet) == 0, "libavcodec takes no data");
  if (avcodec_receive_frame(impl.context, impl.frame) != 0) return false;
  const AVFrame& frame = *impl.frame;
  const int stride = tessera::PaddedWidth(frame.width);
  std::uint8_t* u =
      picture + static_cast<std::size_t>(stride) * tessera::PaddedHeight(frame.height);
  std::uint8_t* v = u + static_cast<std::size_t>(stride) * tessera::PaddedHeight(frame.height) / 4;
  libyuv::I420Copy(frame.data[0], frame.linesize[0], frame.data[1], frame.linesize[1],
                   frame.data[2], frame.linesize[2], picture, stride, u, stride / 2, v, stride / 2,
                   frame.width, frame.height);
  return true;
}

}  // namespace bench
