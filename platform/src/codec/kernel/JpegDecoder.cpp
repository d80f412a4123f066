#include "codec/kernel/JpegDecoder.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <new>

#include "codec/kernel/Devices.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr std::size_t leastRoom = 512 * 1024;

}  // namespace

JpegDecoder::JpegDecoder() : decoder_([this](const M2mDecoder::Frame& frame) { take(frame); }) {}

bool JpegDecoder::open(const std::uint8_t* data, std::size_t size) {
  error_.clear();
  data_ = data;
  size_ = size;
  return header_.open(data, size);
}

ImageDecoder::Result JpegDecoder::refuse(const std::string& why) {
  error_ = why;
  decoder_.close();
  return Result::Unusable;
}

ImageDecoder::Result JpegDecoder::decode(const Planes& planes) try {
  error_.clear();
  if (!prepare()) return Result::Unusable;
  wanted_ = &planes;
  taken_ = false;
  bool good = decoder_.send(data_, size_, ++serial_, true);
  if (good && !taken_) good = decoder_.drain() && decoder_.reset();
  wanted_ = nullptr;
  gaveUp_ = !good;
  if (!good) return refuse(decoder_.error());
  return taken_ ? Result::Complete : refuse("the device does not take this picture");
} catch (const std::bad_alloc&) {
  wanted_ = nullptr;
  gaveUp_ = false;
  decoder_.close();
  error_ = "no memory";  // short enough to need none
  return Result::Unusable;
}

bool JpegDecoder::prepare() {
  if (decoder_.isOpen() && size_ <= room_) return true;
  decoder_.close();
  room_ = std::max(leastRoom, size_ * 2);
  std::vector<std::string> reasons;
  const Work work{false, {V4L2_PIX_FMT_JPEG, V4L2_PIX_FMT_MJPEG}, width(), height()};
  for (const Offer& offer : offersFor(work, reasons)) {
    if (decoder_.open(offer.path, {offer.coded, room_, width(), height()})) return true;
    reasons.push_back(decoder_.error());
  }
  // A picture that is too large for a device says nothing about the next.
  std::vector<std::string> others;
  gaveUp_ = offersFor({false, work.coded, 0, 0}, others).empty();
  error_ = "no device decodes JPEG";
  for (const std::string& reason : reasons) error_ += "; " + reason;
  return false;
}

/// A picture that came out damaged is none: the CPU shows it as far as it goes.
void JpegDecoder::take(const M2mDecoder::Frame& frame) {
  if (wanted_ == nullptr || frame.buffer.error || frame.buffer.serial != serial_) return;
  // Some devices tell a size that they have rounded up and no visible part of it.
  if (frame.visible.width < width() || frame.visible.height < height()) return;
  const Rect visible{frame.visible.left, frame.visible.top, width(), height()};
  taken_ = readFrame(frame.format, visible, frame.buffer, *wanted_);
}

}  // namespace codec::kernel
