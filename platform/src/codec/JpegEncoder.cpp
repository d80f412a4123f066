#include "codec/JpegEncoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "codec/JpegError.h"
#include "codec/PackedRows.h"

namespace codec {

namespace {

constexpr unsigned yuyvRows = 8;  // a 4:2:2 MCU's rows
constexpr unsigned rgbRows = 16;  // a 4:2:0 MCU's rows
constexpr std::size_t headerRoom = 2048;
constexpr std::uint64_t mostGuessed = 16u << 20;

/// libjpeg's destination: one block that grows and stays. Memory of the C library, because it
/// grows inside libjpeg's calls, where nothing may throw.
struct Destination {
  jpeg_destination_mgr manager;  // first: libjpeg hands back its address
  std::uint8_t* block;
  std::size_t capacity;
  std::size_t size;

  bool reserve(std::size_t bytes) {
    if (bytes <= capacity) return true;
    auto* grown = static_cast<std::uint8_t*>(std::realloc(block, bytes));
    if (grown == nullptr) return false;
    block = grown;
    capacity = bytes;
    return true;
  }
};

Destination* destinationOf(j_compress_ptr cinfo) {
  return reinterpret_cast<Destination*>(cinfo->dest);
}

void onStart(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  to->manager.next_output_byte = to->block;
  to->manager.free_in_buffer = to->capacity;
}

boolean onFull(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  // libjpeg calls this with the whole block written, whatever free_in_buffer says.
  const std::size_t written = to->capacity;
  if (!to->reserve(written * 2))
    JpegError::fail(reinterpret_cast<j_common_ptr>(cinfo), "no memory for the JPEG");
  to->manager.next_output_byte = to->block + written;
  to->manager.free_in_buffer = to->capacity - written;
  return TRUE;
}

void onEnd(j_compress_ptr cinfo) {
  Destination* to = destinationOf(cinfo);
  to->size = to->capacity - to->manager.free_in_buffer;
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

struct JpegEncoder::Impl {
  jpeg_compress_struct cinfo = {};
  JpegError errors = {};
  Destination destination = {};
  bool created = false;
  std::vector<std::uint8_t> lines;  // one MCU row, taken apart or expanded
  std::string error;

  ~Impl() {
    if (created) jpeg_destroy_compress(&cinfo);
    std::free(destination.block);
  }

  bool fail(const char* why) {
    destination.size = 0;
    error = why;
    return false;
  }

  void prepareLines(const PackedPicture& picture);
  bool run(const PackedPicture& picture, const PackedRows& rows, int quality);
  void create();
  void configure(const PackedPicture& picture, int quality);
  void writeYuyv(const PackedPicture& picture, const PackedRows& rows);
  void writeRgb(const PackedPicture& picture, const PackedRows& rows);
  void writeExpanded(const PackedPicture& picture, const PackedRows& rows);
};

void JpegEncoder::Impl::prepareLines(const PackedPicture& picture) {
  std::size_t bytes = 0;
  if (picture.format == PixelFormat::Yuyv)
    bytes = std::size_t{yuyvRows} * 2 * roundUp(picture.width, 16);
  else if (picture.format == PixelFormat::Rgb565 || picture.format == PixelFormat::Argb1887)
    bytes = std::size_t{rgbRows} * 3 * picture.width;
  if (lines.size() < bytes) lines.resize(bytes);
}

// From here to run(), frames that libjpeg's jump crosses: no C++ objects in them.

void JpegEncoder::Impl::create() {
  cinfo.err = errors.install();
  jpeg_create_compress(&cinfo);
  created = true;
  destination.manager.init_destination = onStart;
  destination.manager.empty_output_buffer = onFull;
  destination.manager.term_destination = onEnd;
  cinfo.dest = &destination.manager;
}

void JpegEncoder::Impl::configure(const PackedPicture& picture, int quality) {
  cinfo.image_width = picture.width;
  cinfo.image_height = picture.height;
  const bool yuyv = picture.format == PixelFormat::Yuyv;
  cinfo.input_components =
      picture.format == PixelFormat::Rgba32 || picture.format == PixelFormat::Bgra32 ? 4 : 3;
  cinfo.in_color_space = inputSpace(picture.format);
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, quality, TRUE);
  cinfo.dct_method = JDCT_ISLOW;
  cinfo.comp_info[0].h_samp_factor = 2;
  cinfo.comp_info[0].v_samp_factor = yuyv ? 1 : 2;
  cinfo.raw_data_in = yuyv ? TRUE : FALSE;
}

void JpegEncoder::Impl::writeYuyv(const PackedPicture& picture, const PackedRows& rows) {
  const unsigned full = roundUp(picture.width, 16);
  const unsigned chroma = (picture.width + 1) / 2;
  JSAMPROW y[yuyvRows], u[yuyvRows], v[yuyvRows];
  for (unsigned i = 0; i < yuyvRows; ++i) {
    y[i] = lines.data() + std::size_t{i} * 2 * full;
    u[i] = y[i] + full;
    v[i] = u[i] + full / 2;
  }
  JSAMPARRAY planes[3] = {y, u, v};
  for (unsigned top = 0; top < picture.height; top += yuyvRows) {
    for (unsigned i = 0; i < yuyvRows; ++i) {
      rows.deinterleave(std::min(top + i, picture.height - 1), y[i], u[i], v[i]);
      pad(y[i], picture.width, full);
      pad(u[i], chroma, full / 2);
      pad(v[i], chroma, full / 2);
    }
    jpeg_write_raw_data(&cinfo, planes, yuyvRows);
  }
}

void JpegEncoder::Impl::writeRgb(const PackedPicture& picture, const PackedRows& rows) {
  JSAMPROW group[rgbRows];
  for (unsigned top = 0; top < picture.height; top += rgbRows) {
    const unsigned count = std::min(rgbRows, picture.height - top);
    // libjpeg only reads them; its interface merely lacks the const.
    for (unsigned i = 0; i < count; ++i) group[i] = const_cast<JSAMPROW>(rows.row(top + i));
    jpeg_write_scanlines(&cinfo, group, count);
  }
}

void JpegEncoder::Impl::writeExpanded(const PackedPicture& picture, const PackedRows& rows) {
  JSAMPROW group[rgbRows];
  for (unsigned i = 0; i < rgbRows; ++i) group[i] = &lines[std::size_t{i} * 3 * picture.width];
  for (unsigned top = 0; top < picture.height; top += rgbRows) {
    const unsigned count = std::min(rgbRows, picture.height - top);
    for (unsigned i = 0; i < count; ++i) rows.expand(top + i, group[i]);
    jpeg_write_scanlines(&cinfo, group, count);
  }
}

bool JpegEncoder::Impl::run(const PackedPicture& picture, const PackedRows& rows, int quality) {
  if (setjmp(errors.jump) != 0) {
    if (created) jpeg_abort_compress(&cinfo);
    return false;
  }
  if (!created) create();
  errors.reset();
  configure(picture, quality);
  jpeg_start_compress(&cinfo, TRUE);
  if (picture.format == PixelFormat::Yuyv)
    writeYuyv(picture, rows);
  else if (picture.format == PixelFormat::Rgb565 || picture.format == PixelFormat::Argb1887)
    writeExpanded(picture, rows);
  else
    writeRgb(picture, rows);
  jpeg_finish_compress(&cinfo);
  return true;
}

JpegEncoder::JpegEncoder() : impl_(std::make_unique<Impl>()) {}
JpegEncoder::~JpegEncoder() = default;

bool JpegEncoder::encode(const PackedPicture& picture, int quality) {
  Impl& impl = *impl_;
  impl.error.clear();
  impl.destination.size = 0;
  if (picture.width == 0 || picture.height == 0) return impl.fail("an empty picture");
  if (picture.width > JPEG_MAX_DIMENSION || picture.height > JPEG_MAX_DIMENSION)
    return impl.fail("a side longer than 65,500 pixels");
  if (quality < 1 || quality > 100) return impl.fail("a quality outside 1 to 100");
  const PackedRows rows(picture);
  if (rows.covered() == 0) return impl.fail("less data than one row");
  try {
    impl.prepareLines(picture);
  } catch (const std::bad_alloc&) {
    return impl.fail("no memory for a row of the picture");
  }
  const std::uint64_t guess = std::uint64_t{picture.width} * picture.height / 2 + headerRoom;
  if (!impl.destination.reserve(static_cast<std::size_t>(std::min(guess, mostGuessed))))
    return impl.fail("no memory for the JPEG");
  return impl.run(picture, rows, quality) || impl.fail(impl.errors.text);
}

const std::uint8_t* JpegEncoder::data() const {
  return impl_->destination.block;
}
std::size_t JpegEncoder::size() const {
  return impl_->destination.size;
}
const std::string& JpegEncoder::error() const {
  return impl_->error;
}

}  // namespace codec
