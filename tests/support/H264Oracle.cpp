#include "support/H264Oracle.h"

extern "C" {
#include <libavcodec/avcodec.h>
}
#include <x264.h>

#include <algorithm>
#include <memory>

namespace support {
namespace {

struct Deleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
  void operator()(AVFrame* f) const { av_frame_free(&f); }
  void operator()(AVPacket* p) const { av_packet_free(&p); }
  void operator()(AVCodecParserContext* p) const { av_parser_close(p); }
  void operator()(x264_t* e) const { x264_encoder_close(e); }
};
template <typename T>
using Owned = std::unique_ptr<T, Deleter>;

Yuv toYuvPicture(const AVFrame& frame) {
  Yuv yuv{frame.width, frame.height, {}, {}, {}};
  yuv.y = takePlane(frame.data[0], yuv.width, yuv.height, frame.linesize[0]);
  yuv.u = takePlane(frame.data[1], yuv.chromaWidth(), yuv.chromaHeight(), frame.linesize[1]);
  yuv.v = takePlane(frame.data[2], yuv.chromaWidth(), yuv.chromaHeight(), frame.linesize[2]);
  return yuv;
}

void drain(AVCodecContext* codec, AVFrame* frame, H264Stream& result) {
  while (avcodec_receive_frame(codec, frame) == 0) {
    result.pictures.push_back(toYuvPicture(*frame));
    result.keyFrames.push_back(frame->key_frame != 0);
    result.aspectNum = frame->sample_aspect_ratio.num;
    result.aspectDen = frame->sample_aspect_ratio.den;
    av_frame_unref(frame);
  }
}

void describe(const AVCodecContext& codec, H264Stream& result) {
  result.profile = codec.profile & 0xff;
  result.level = codec.level;
  result.frameRateNum = codec.framerate.num;
  result.frameRateDen = codec.framerate.den;
}

x264_param_t parameters(const H264Options& options) {
  x264_param_t p;
  x264_param_default_preset(&p, "veryfast", nullptr);
  p.i_log_level = X264_LOG_NONE;
  p.i_width = options.width;
  p.i_height = options.height;
  p.i_csp = X264_CSP_I420;
  p.i_fps_num = 25;
  p.i_threads = 1;
  p.i_bframe = options.bFrames;
  p.i_bframe_adaptive = X264_B_ADAPT_NONE;  // as many as asked for, and key frames where
  p.i_scenecut_threshold = 0;               // asked for
  p.i_slice_count = options.slices;
  p.i_keyint_max = options.keyInterval;
  p.b_interlaced = options.interlaced;
  p.b_repeat_headers = 1;
  p.rc.i_rc_method = X264_RC_CQP;
  p.rc.i_qp_constant = options.quantiser;
  x264_param_apply_profile(&p, options.profile);
  return p;
}

}  // namespace

H264Stream decodeH264(const Bytes& stream) {
  H264Stream result;
  const AVCodec* const decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
  const Owned<AVCodecContext> codec(avcodec_alloc_context3(decoder));
  codec->thread_count = 1;
  codec->flags |= AV_CODEC_FLAG_UNALIGNED;
  codec->log_level_offset = 64;
  if (avcodec_open2(codec.get(), decoder, nullptr) != 0) return result;
  const Owned<AVCodecParserContext> parser(av_parser_init(AV_CODEC_ID_H264));
  const Owned<AVFrame> frame(av_frame_alloc());
  const Owned<AVPacket> packet(av_packet_alloc());
  Bytes input = stream;
  input.resize(stream.size() + AV_INPUT_BUFFER_PADDING_SIZE);
  std::size_t at = 0;
  for (bool flushing = false; !flushing;) {
    flushing = at >= stream.size();
    const int used =
        av_parser_parse2(parser.get(), codec.get(), &packet->data, &packet->size,
                         flushing ? nullptr : input.data() + at,
                         static_cast<int>(stream.size() - at), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    at += static_cast<std::size_t>(used);
    if (packet->size == 0) continue;
    avcodec_send_packet(codec.get(), packet.get());
    drain(codec.get(), frame.get(), result);
  }
  avcodec_send_packet(codec.get(), nullptr);
  drain(codec.get(), frame.get(), result);
  describe(*codec, result);
  return result;
}

H264Made encodeH264(const H264Options& options) {
  H264Made made;
  x264_param_t p = parameters(options);
  const Owned<x264_t> encoder(x264_encoder_open(&p));
  if (!encoder) return made;
  x264_nal_t* nals = nullptr;
  int count = 0;
  const auto append = [&](int size) {
    if (size <= 0) return;
    made.units.push_back(made.stream.size());
    made.stream.insert(made.stream.end(), nals[0].p_payload, nals[0].p_payload + size);
  };
  x264_picture_t out;
  for (int t = 0; t < options.frames; ++t) {
    const Yuv yuv = toYuv(scene(options.width, options.height, t));
    x264_picture_t in;
    x264_picture_init(&in);
    in.i_pts = t;
    in.img.i_csp = X264_CSP_I420;
    in.img.i_plane = 3;
    const Bytes* const planes[3] = {&yuv.y, &yuv.u, &yuv.v};
    for (int i = 0; i < 3; ++i) {
      in.img.plane[i] = const_cast<std::uint8_t*>(planes[i]->data());
      in.img.i_stride[i] = i == 0 ? yuv.width : yuv.chromaWidth();
    }
    append(x264_encoder_encode(encoder.get(), &nals, &count, &in, &out));
  }
  while (x264_encoder_delayed_frames(encoder.get()) > 0)
    append(x264_encoder_encode(encoder.get(), &nals, &count, nullptr, &out));
  made.units.push_back(made.stream.size());
  return made;
}

std::vector<std::size_t> nalStarts(const Bytes& stream) {
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i + 3 <= stream.size(); ++i)
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1)
      starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
  starts.push_back(stream.size());
  return starts;
}

std::vector<int> nalTypes(const Bytes& stream) {
  std::vector<int> types;
  for (const std::size_t start : nalStarts(stream))
    if (start + 5 <= stream.size())
      types.push_back(stream[start + (stream[start + 2] == 1 ? 3 : 4)] & 31);
  return types;
}

bool holdsSlice(const Bytes& stream) {
  const std::vector<int> types = nalTypes(stream);
  return std::any_of(types.begin(), types.end(), [](int type) { return type == 1 || type == 5; });
}

}  // namespace support
