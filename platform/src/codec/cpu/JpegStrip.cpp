#include "codec/cpu/JpegStrip.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace codec {

namespace {

constexpr unsigned yuyvRows = 8;  // of a 4:2:2 MCU
constexpr unsigned rgbRows = 16;  // of a 4:2:0 MCU
constexpr std::size_t headerRoom = 2048;
constexpr std::uint64_t mostGuessed = 16u << 20;
constexpr const char* noMemory = "no memory for the JPEG";

bool isExpanded(PixelFormat format) {
  return format == PixelFormat::Rgb565 || format == PixelFormat::Argb1887;
}

J_COLOR_SPACE inputSpace(PixelFormat format) {
  switch (format) {
    case PixelFormat::Yuyv:
      return JCS_YCbCr;
    case PixelFormat::Rgba32:
      return JCS_EXT_RGBX;
    case PixelFormat::Bgra32:
      return JCS_EXT_BGRX;
    default:
      return JCS_EXT_RGB;
  }
}

/// Repeats the last sample up to the end of the row.
void pad(std::uint8_t* row, unsigned used, unsigned full) {
  if (used < full) std::memset(row + used, row[used - 1], full - used);
}

}  // namespace

bool JpegStrip::Destination::reserve(std::size_t bytes) {
  if (bytes <= capacity) return true;
  auto* grown = static_cast<std::uint8_t*>(std::realloc(block, bytes));
  if (grown == nullptr) return false;
  block = grown;
  capacity = bytes;
  return true;
}

JpegStrip::Destination* JpegStrip::destinationOf(j_compress_ptr cinfo) {
  return reinterpret_cast<Destination*>(cinfo->dest);
}

void JpegStrip::onStart(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  to->manager.next_output_byte = to->block;
  to->manager.free_in_buffer = to->capacity;
}

boolean JpegStrip::onFull(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  // libjpeg calls this with the whole block written, whatever free_in_buffer says.
  const std::size_t written = to->capacity;
  if (!to->reserve(written * 2)) JpegError::fail(reinterpret_cast<j_common_ptr>(cinfo), noMemory);
  to->manager.next_output_byte = to->block + written;
  to->manager.free_in_buffer = to->capacity - written;
  return TRUE;
}

void JpegStrip::onEnd(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  to->size = to->capacity - to->manager.free_in_buffer;
}

JpegStrip::~JpegStrip() {
  if (created_) jpeg_destroy_compress(&cinfo_);
  std::free(destination_.block);
}

unsigned JpegStrip::mcuRows(PixelFormat format) {
  return format == PixelFormat::Yuyv ? yuyvRows : rgbRows;
}

bool JpegStrip::fail(const char* why) {
  destination_.size = 0;
  error_ = why;
  return false;
}

bool JpegStrip::resize(std::size_t bytes) {
  if (!destination_.reserve(bytes)) return fail(noMemory);
  destination_.size = bytes;
  return true;
}

bool JpegStrip::encode(const Job& job) {
  destination_.size = 0;
  try {
    prepareLines(*job.picture);
  } catch (const std::bad_alloc&) {
    return fail("no memory for a row of the picture");
  }
  const std::uint64_t guess = std::uint64_t{job.picture->width} * job.height / 2 + headerRoom;
  if (!destination_.reserve(static_cast<std::size_t>(std::min(guess, mostGuessed))))
    return fail(noMemory);
  return run(job) || fail(errors_.text);
}

void JpegStrip::prepareLines(const PackedPicture& picture) {
  std::size_t bytes = 0;
  if (picture.format == PixelFormat::Yuyv)
    bytes = std::size_t{yuyvRows} * 2 * roundUp(picture.width, 16);
  else if (isExpanded(picture.format))
    bytes = std::size_t{rgbRows} * 3 * picture.width;
  if (lines_.size() < bytes) lines_.resize(bytes);
}

// From here on, frames that libjpeg's jump crosses: no C++ objects in them.

void JpegStrip::create() {
  cinfo_.err = errors_.install();
  jpeg_create_compress(&cinfo_);
  created_ = true;
  destination_.manager.init_destination = onStart;
  destination_.manager.empty_output_buffer = onFull;
  destination_.manager.term_destination = onEnd;
  cinfo_.dest = &destination_.manager;
}

void JpegStrip::configure(const Job& job) {
  const PixelFormat format = job.picture->format;
  const bool yuyv = format == PixelFormat::Yuyv;
  cinfo_.image_width = job.picture->width;
  cinfo_.image_height = job.height;
  cinfo_.input_components = format == PixelFormat::Rgba32 || format == PixelFormat::Bgra32 ? 4 : 3;
  cinfo_.in_color_space = inputSpace(format);
  jpeg_set_defaults(&cinfo_);
  jpeg_set_quality(&cinfo_, job.quality, TRUE);
  // As fast as the less accurate transform, with the vector units of today.
  cinfo_.dct_method = JDCT_ISLOW;
  cinfo_.comp_info[0].h_samp_factor = 2;
  cinfo_.comp_info[0].v_samp_factor = yuyv ? 1 : 2;
  cinfo_.raw_data_in = yuyv ? TRUE : FALSE;
  cinfo_.restart_interval = job.restartInterval;
}

void JpegStrip::writeYuyv(const Job& job) {
  const PackedPicture& picture = *job.picture;
  const unsigned full = roundUp(picture.width, 16);
  const unsigned chroma = (picture.width + 1) / 2;
  JSAMPROW y[yuyvRows], u[yuyvRows], v[yuyvRows];
  for (unsigned i = 0; i < yuyvRows; ++i) {
    y[i] = lines_.data() + std::size_t{i} * 2 * full;
    u[i] = y[i] + full;
    v[i] = u[i] + full / 2;
  }
  JSAMPARRAY planes[3] = {y, u, v};
  const unsigned end = job.top + job.height;
  for (unsigned top = job.top; top < end; top += yuyvRows) {
    for (unsigned i = 0; i < yuyvRows; ++i) {
      job.rows->deinterleave(std::min(top + i, end - 1), y[i], u[i], v[i]);
      pad(y[i], picture.width, full);
      pad(u[i], chroma, full / 2);
      pad(v[i], chroma, full / 2);
    }
    jpeg_write_raw_data(&cinfo_, planes, yuyvRows);
  }
}

void JpegStrip::writeRgb(const Job& job) {
  const bool expanded = isExpanded(job.picture->format);
  JSAMPROW group[rgbRows];
  const unsigned end = job.top + job.height;
  for (unsigned top = job.top; top < end; top += rgbRows) {
    const unsigned count = std::min(rgbRows, end - top);
    for (unsigned i = 0; i < count; ++i) {
      if (expanded) {
        group[i] = &lines_[std::size_t{i} * 3 * job.picture->width];
        job.rows->expand(top + i, group[i]);
      } else {
        // libjpeg only reads them; its interface merely lacks the const.
        group[i] = const_cast<JSAMPROW>(job.rows->row(top + i));
      }
    }
    jpeg_write_scanlines(&cinfo_, group, count);
  }
}

bool JpegStrip::run(const Job& job) {
  if (setjmp(errors_.jump) != 0) {
    if (created_) jpeg_abort_compress(&cinfo_);
    return false;
  }
  if (!created_) create();
  errors_.reset();
  configure(job);
  jpeg_start_compress(&cinfo_, TRUE);
  if (job.picture->format == PixelFormat::Yuyv)
    writeYuyv(job);
  else
    writeRgb(job);
  jpeg_finish_compress(&cinfo_);
  return true;
}

}  // namespace codec
