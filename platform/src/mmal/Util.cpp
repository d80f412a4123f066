#include <cstddef>

#include "interface/mmal/mmal_encodings.h"
#include "interface/mmal/mmal_events.h"
#include "interface/mmal/util/mmal_util.h"

// Helpers without state: names, strides, a look into an event.

const char* mmal_status_to_string(MMAL_STATUS_T status) {
  static const char* const names[] = {
      "SUCCESS", "ENOMEM",   "ENOSPC",    "EINVAL",  "ENOSYS",  "ENOENT",   "ENXIO",  "EIO",
      "ESPIPE",  "ECORRUPT", "ENOTREADY", "ECONFIG", "EISCONN", "ENOTCONN", "EAGAIN", "EFAULT"};
  const auto index = static_cast<std::size_t>(status);
  return index < sizeof(names) / sizeof(names[0]) ? names[index] : "UNKNOWN";
}

char* mmal_4cc_to_string(char* buf, size_t len, uint32_t fourcc) {
  if (buf == nullptr || len == 0) return buf;
  size_t at = 0;
  for (; at < 4 && at + 1 < len; ++at, fourcc >>= 8) {
    const char character = static_cast<char>(fourcc & 0xFF);
    buf[at] = character >= 0x20 && character < 0x7F ? character : '.';
  }
  buf[at] = '\0';
  return buf;
}

namespace {

struct RowBytes {
  uint32_t encoding;
  uint32_t bytesPerPixel;
};

constexpr RowBytes rows[] = {{MMAL_ENCODING_I420, 1},
                             {MMAL_ENCODING_YUYV, 2},
                             {MMAL_ENCODING_RGB16, 2},
                             {MMAL_ENCODING_RGB24, 3},
                             {MMAL_ENCODING_RGBA, 4}};

}  // namespace

uint32_t mmal_encoding_width_to_stride(uint32_t encoding, uint32_t width) {
  for (const RowBytes& each : rows)
    if (each.encoding == encoding) return width * each.bytesPerPixel;
  return 0;
}

MMAL_EVENT_FORMAT_CHANGED_T* mmal_event_format_changed_get(MMAL_BUFFER_HEADER_T* buffer) {
  if (buffer == nullptr || buffer->cmd != MMAL_EVENT_FORMAT_CHANGED) return nullptr;
  if (buffer->data == nullptr || buffer->length < sizeof(MMAL_EVENT_FORMAT_CHANGED_T))
    return nullptr;
  return reinterpret_cast<MMAL_EVENT_FORMAT_CHANGED_T*>(buffer->data);
}
