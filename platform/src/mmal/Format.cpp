#include "mmal/Format.h"

#include <cstring>
#include <new>

#include "interface/mmal/util/mmal_util.h"
#include "mmal/Call.h"
#include "mmal/Text.h"

namespace mmal {

Format::Format() : MMAL_ES_FORMAT_T{} {
  es = &specific_;
}

void copyFormat(MMAL_ES_FORMAT_T& destination, const MMAL_ES_FORMAT_T& source) {
  destination.type = source.type;
  destination.encoding = source.encoding;
  destination.encoding_variant = source.encoding_variant;
  destination.bitrate = source.bitrate;
  destination.flags = source.flags;
  if (source.es != nullptr) *destination.es = *source.es;
  destination.extradata_size = 0;
  destination.extradata = nullptr;
}

MMAL_STATUS_T Format::copyAll(const MMAL_ES_FORMAT_T& source) {
  if (&source == this) return MMAL_SUCCESS;
  copyFormat(*this, source);
  if (source.extradata_size == 0 || source.extradata == nullptr) return MMAL_SUCCESS;
  const MMAL_STATUS_T status = reserveExtraData(source.extradata_size);
  if (status != MMAL_SUCCESS) return status;
  std::memcpy(extradata, source.extradata, source.extradata_size);
  extradata_size = source.extradata_size;
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Format::reserveExtraData(std::uint32_t size) try {
  if (size > extra_.size()) extra_.resize(size);
  extradata = extra_.data();
  return MMAL_SUCCESS;
} catch (const std::exception&) {
  return MMAL_ENOMEM;
}

std::uint32_t rawFrameBytes(MMAL_FOURCC_T encoding, std::uint32_t width, std::uint32_t height) {
  if (encoding == MMAL_ENCODING_I420) return width * height / 2 * 3;
  return mmal_encoding_width_to_stride(encoding, width) * height;
}

MMAL_RECT_T pictureOf(const MMAL_VIDEO_FORMAT_T& video) {
  if (video.crop.width != 0 && video.crop.height != 0) return video.crop;
  return {0, 0, static_cast<std::int32_t>(video.width), static_cast<std::int32_t>(video.height)};
}

bool rawGeometryFits(const MMAL_VIDEO_FORMAT_T& video) {
  if (video.width == 0 || video.width > largestSide || video.width % 32 != 0) return false;
  if (video.height == 0 || video.height > largestSide || video.height % 16 != 0) return false;
  const MMAL_RECT_T crop = pictureOf(video);
  if (crop.x < 0 || crop.y < 0 || crop.width <= 0 || crop.height <= 0) return false;
  return std::int64_t{crop.x} + crop.width <= std::int64_t{video.width} &&
         std::int64_t{crop.y} + crop.height <= std::int64_t{video.height};
}

}  // namespace mmal

using mmal::Call;
using mmal::Format;

MMAL_ES_FORMAT_T* mmal_format_alloc(void) {
  Call call("mmal_format_alloc");
  MMAL_ES_FORMAT_T* const format = call.stopped() ? nullptr : new (std::nothrow) Format;
  return call.answer(
      format, [] { return std::string(); },
      [](MMAL_ES_FORMAT_T* f) { return f != nullptr ? "format" : "null"; });
}

void mmal_format_free(MMAL_ES_FORMAT_T* format) {
  Call call("mmal_format_free");
  if (!call.stopped()) delete static_cast<Format*>(format);
  call.done();
}

MMAL_STATUS_T mmal_format_extradata_alloc(MMAL_ES_FORMAT_T* format, unsigned int size) {
  Call call("mmal_format_extradata_alloc");
  const auto args = [&] { return std::to_string(size) + " bytes"; };
  if (call.stopped()) return call.refuse(args);
  if (format == nullptr) return call.leave(MMAL_EINVAL, args);
  return call.leave(static_cast<Format*>(format)->reserveExtraData(size), args);
}

void mmal_format_copy(MMAL_ES_FORMAT_T* destination, MMAL_ES_FORMAT_T* source) {
  Call call("mmal_format_copy");
  if (!call.stopped() && destination != nullptr && source != nullptr && destination != source)
    mmal::copyFormat(*destination, *source);
  call.done([&] { return source != nullptr ? mmal::text::format(*source) : std::string("null"); });
}

MMAL_STATUS_T mmal_format_full_copy(MMAL_ES_FORMAT_T* destination, MMAL_ES_FORMAT_T* source) {
  Call call("mmal_format_full_copy");
  const auto args = [&] {
    return source != nullptr ? mmal::text::format(*source) : std::string("null");
  };
  if (call.stopped()) return call.refuse(args);
  if (destination == nullptr || source == nullptr) return call.leave(MMAL_EINVAL, args);
  return call.leave(static_cast<Format*>(destination)->copyAll(*source), args);
}
