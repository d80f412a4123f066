#include "codec/cpu/H264Libav.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

extern "C" {
#include <libavutil/mem.h>
}

namespace codec {

namespace {

/// Lifts every message of the context above the levels that are printed, whatever the application
/// set for itself. Only the low eight bits of a level count.
constexpr int silent = 128;

/// A result, unless it says that there was no memory.
int enough(int result) {
  if (result == AVERROR(ENOMEM)) throw std::bad_alloc();
  return result;
}

}  // namespace

bool H264Libav::open(const std::vector<std::uint8_t>& parameterSets) {
  if (start(parameterSets)) return true;
  close();
  return false;
}

bool H264Libav::start(const std::vector<std::uint8_t>& parameterSets) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  context_.reset(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
  if (packet_ == nullptr) packet_.reset(av_packet_alloc());
  if (context_ == nullptr || packet_ == nullptr) return false;
  context_->log_level_offset = silent;
  context_->flags |= AV_CODEC_FLAG_UNALIGNED;  // crop exactly
  context_->thread_count = 1;
  if (!parameterSets.empty()) {
    void* copy = av_mallocz(parameterSets.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    if (copy == nullptr) return false;
    std::memcpy(copy, parameterSets.data(), parameterSets.size());
    context_->extradata = static_cast<std::uint8_t*>(copy);
    context_->extradata_size = static_cast<int>(parameterSets.size());
  }
  return avcodec_open2(context_.get(), codec, nullptr) == 0;
}

bool H264Libav::send(const std::uint8_t* data, std::size_t size, std::int64_t serial) {
  if (context_ == nullptr) return false;
  // libavcodec makes a padded copy of what is not reference-counted.
  packet_->data = const_cast<std::uint8_t*>(data);
  packet_->size = static_cast<int>(size);
  packet_->pts = serial;
  return enough(avcodec_send_packet(context_.get(), packet_.get())) >= 0;
}

void H264Libav::finish() {
  if (context_ != nullptr) avcodec_send_packet(context_.get(), nullptr);
}

Frame H264Libav::receive() {
  if (context_ == nullptr) return nullptr;
  Frame frame;
  if (spare_.empty()) {
    frame.reset(av_frame_alloc());
  } else {
    frame = std::move(spare_.back());
    spare_.pop_back();
  }
  if (frame == nullptr) throw std::bad_alloc();
  if (enough(avcodec_receive_frame(context_.get(), frame.get())) >= 0) return frame;
  recycle(std::move(frame));
  return nullptr;
}

void H264Libav::recycle(Frame frame) {
  if (frame == nullptr) return;
  av_frame_unref(frame.get());
  spare_.push_back(std::move(frame));
}

bool isDamaged(const AVFrame& frame) {
  return frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
}

bool isSame(const AVFrame& a, const AVFrame& b) {
  if (a.width != b.width || a.height != b.height || a.format != b.format) return false;
  for (int plane = 0; plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    const auto width = static_cast<std::size_t>((a.width + shift) >> shift);
    for (int y = 0; y < (a.height + shift) >> shift; ++y)
      if (std::memcmp(a.data[plane] + std::ptrdiff_t{y} * a.linesize[plane],
                      b.data[plane] + std::ptrdiff_t{y} * b.linesize[plane], width) != 0)
        return false;
  }
  return true;
}

}  // namespace codec
