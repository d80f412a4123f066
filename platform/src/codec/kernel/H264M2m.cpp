#include "codec/kernel/H264M2m.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <new>

#include "codec/H264Bits.h"
#include "codec/kernel/Devices.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr std::size_t leastRoom = 512 * 1024;
constexpr std::size_t mostSpare = 20;

bool showsPicture(const std::uint8_t* data, std::size_t size) {
  for (std::size_t at = nextNal(data, 0, size); at < size; at = nextNal(data, at + 1, size)) {
    const unsigned type = data[at] & 31;
    if (type == NalType::Slice || type == NalType::SliceDataA || type == NalType::IdrSlice)
      return true;
  }
  return false;
}

}  // namespace

bool decodesTenBits(M2mDevice& device) {
  return device.hasMenuEntry(V4L2_CID_MPEG_VIDEO_H264_PROFILE,
                             V4L2_MPEG_VIDEO_H264_PROFILE_HIGH_10);
}

H264M2m::H264M2m() : decoder_([this](const M2mDecoder::Frame& frame) { take(frame); }) {}

bool H264M2m::find(unsigned width, unsigned height) {
  close();
  std::vector<std::string> reasons;
  M2mDecoder::Setup setup;
  setup.coded = V4L2_PIX_FMT_H264;
  setup.unitSize = leastRoom + std::size_t{width} * height;
  setup.width = width;
  setup.height = height;
  for (const Offer& offer : offersFor({false, {setup.coded}, width, height}, reasons)) {
    if (decoder_.open(offer.path, setup)) {
      tenBits_ = decodesTenBits(decoder_.device());
      return true;
    }
    reasons.push_back(decoder_.error());
  }
  failure_ = "no device decodes H.264";
  for (const std::string& reason : reasons) failure_ += "; " + reason;
  return false;
}

bool H264M2m::open(const std::vector<std::uint8_t>& parameterSets) {
  if (!decoder_.isOpen()) return false;
  unit_ = parameterSets;
  return note(decoder_.reset());
}

void H264M2m::close() {
  decoder_.close();
  failure_.clear();
  while (!ready_.empty()) {
    recycle(std::move(ready_.front()));
    ready_.pop_front();
  }
}

/// After a failure nothing is sent any more.
bool H264M2m::note(bool good) {
  if (good || !failure_.empty()) return good;
  failure_ = decoder_.error();
  decoder_.close();
  return false;
}

bool H264M2m::send(const std::uint8_t* data, std::size_t size, std::int64_t serial) {
  if (!decoder_.isOpen()) return false;
  const bool shows = showsPicture(data, size);
  const auto number = static_cast<std::uint64_t>(serial);
  if (shows && unit_.empty()) return note(decoder_.send(data, size, number, shows));
  // A picture carries the stamp of the first bytes that it is made of.
  unit_.insert(unit_.end(), data, data + size);
  if (!shows) return true;
  const bool good = note(decoder_.send(unit_.data(), unit_.size(), number, shows));
  unit_.clear();
  return good;
}

void H264M2m::finish() {
  if (decoder_.isOpen()) note(decoder_.drain());
}

void H264M2m::take(const M2mDecoder::Frame& from) {
  Frame frame = frameOf(from.visible.width, from.visible.height);
  const Planes planes = {frame->data[0], frame->data[1], frame->data[2],
                         static_cast<unsigned>(frame->linesize[0]),
                         static_cast<unsigned>(frame->linesize[1])};
  if (!readFrame(from.format, from.visible, from.buffer, planes)) return;
  frame->pts = static_cast<std::int64_t>(from.buffer.serial);
  frame->decode_error_flags = from.buffer.error ? FF_DECODE_ERROR_MISSING_REFERENCE : 0;
  ready_.push_back(std::move(frame));
}

Frame H264M2m::frameOf(unsigned width, unsigned height) {
  const auto fits = [&](const Frame& frame) {
    return frame->width == static_cast<int>(width) && frame->height == static_cast<int>(height);
  };
  const auto found = std::find_if(spare_.begin(), spare_.end(), fits);
  if (found != spare_.end()) {
    Frame frame = std::move(*found);
    spare_.erase(found);
    return frame;
  }
  spare_.clear();
  Frame frame(av_frame_alloc());
  if (frame == nullptr) throw std::bad_alloc();
  frame->width = static_cast<int>(width);
  frame->height = static_cast<int>(height);
  frame->format = AV_PIX_FMT_YUV420P;
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
  return frame;
}

Frame H264M2m::receive() {
  if (ready_.empty()) return nullptr;
  Frame frame = std::move(ready_.front());
  ready_.pop_front();
  return frame;
}

void H264M2m::recycle(Frame frame) {
  if (frame != nullptr && spare_.size() < mostSpare) spare_.push_back(std::move(frame));
}

}  // namespace codec::kernel
