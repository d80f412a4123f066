#include "RangeMark.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <tessera/Basics.h>

#include <cstring>

#include "Failure.h"

namespace tool {
namespace {

bool startsWithParameters(const std::vector<std::uint8_t>& frame) {
  using namespace tessera::annexb;
  for (std::size_t unit = NextUnit(frame.data(), frame.size(), 0); unit < frame.size();
       unit = NextUnit(frame.data(), frame.size(), unit)) {
    const int type = TypeOf(frame.data(), unit);
    if (type == SequenceParameters) return true;
    if (IsPicture(type)) break;
  }
  return false;
}

}  // namespace

RangeMark::RangeMark() : packet_(av_packet_alloc()) {
  AVBSFContext* context = nullptr;
  const AVBitStreamFilter* kind = av_bsf_get_by_name("h264_metadata");
  if (!packet_ || !kind || av_bsf_alloc(kind, &context) < 0) throw std::bad_alloc();
  filter_.reset(context);
  context->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
  context->par_in->codec_id = AV_CODEC_ID_H264;
  av_opt_set_int(context->priv_data, "video_full_range_flag", 1, 0);
  const int result = av_bsf_init(context);
  if (result < 0) throw Failure("cannot mark the stream's range: " + avErrorText(result));
}

void RangeMark::apply(std::vector<std::uint8_t>& frame) {
  if (!startsWithParameters(frame)) return;
  int result = av_new_packet(packet_.get(), static_cast<int>(frame.size()));
  if (result < 0) throw std::bad_alloc();
  std::memcpy(packet_->data, frame.data(), frame.size());
  result = av_bsf_send_packet(filter_.get(), packet_.get());
  if (result >= 0) result = av_bsf_receive_packet(filter_.get(), packet_.get());
  if (result < 0) throw Failure("cannot mark the stream's range: " + avErrorText(result));
  frame.assign(packet_->data, packet_->data + packet_->size);
  av_packet_unref(packet_.get());
}

}  // namespace tool
