#include "codec/cpu/JpegRows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "codec/cpu/ChromaFold.h"

namespace codec {

namespace {

constexpr unsigned mostBandRows = MAX_SAMP_FACTOR * DCTSIZE;
constexpr std::uint8_t endMarker[] = {0xff, JPEG_EOI};

/// Whether libjpeg can write the component where the caller wants it.
bool isInPlace(const jpeg_decompress_struct& header, unsigned component) {
  const jpeg_component_info& info = header.comp_info[component];
  const int unit = component == 0 ? 1 : 2;
  return header.jpeg_color_space != JCS_RGB &&
         info.h_samp_factor * unit == header.max_h_samp_factor &&
         info.v_samp_factor * unit == header.max_v_samp_factor;
}

}  // namespace

JpegRows::~JpegRows() {
  if (!created_) return;
  jpeg_destroy_decompress(&cinfo_);
  jpeg_destroy_compress(&defaults_);
}

void JpegRows::place(const jpeg_decompress_struct& header, const Planes& planes) {
  std::size_t sizes[mostComponents] = {}, sum = 0;
  const auto components = static_cast<unsigned>(header.num_components);
  if (header.jpeg_color_space == JCS_RGB) {
    sum = sizes[0] = std::size_t{header.image_width} * 6;
  } else {
    for (unsigned i = 0; i < components; ++i) {
      const jpeg_component_info& info = header.comp_info[i];
      if (isInPlace(header, i)) continue;
      sizes[i] = std::size_t{info.width_in_blocks} * DCTSIZE * DCTSIZE *
                 static_cast<unsigned>(info.v_samp_factor);
      sum += sizes[i];
    }
  }
  if (stage_.size() < sum) stage_.resize(sum);
  if (spare_.size() < header.image_width + mostBandRows)
    spare_.resize(roundUp(header.image_width, 32) + mostBandRows);
  std::size_t at = 0;
  for (unsigned i = 0; i < mostComponents; ++i) {
    band_[i] = sizes[i] == 0 ? nullptr : stage_.data() + at;
    at += sizes[i];
  }
  plane_[0] = planes.y;
  plane_[1] = planes.u;
  plane_[2] = planes.v;
  planeStride_[0] = planes.yStride;
  planeStride_[1] = planeStride_[2] = planes.uvStride;
  rowsDone_ = 0;
}

void JpegRows::foldBand(unsigned component, unsigned top) {
  const jpeg_component_info& info = cinfo_.comp_info[component];
  const unsigned unit = component == 0 ? 1 : 2;
  const Ratio across{static_cast<unsigned>(info.h_samp_factor),
                     static_cast<unsigned>(cinfo_.max_h_samp_factor)};
  const Ratio down{static_cast<unsigned>(info.v_samp_factor),
                   static_cast<unsigned>(cinfo_.max_v_samp_factor)};
  const unsigned firstRow = top * down.samples / down.pixels;
  const unsigned bandRows = std::min(info.downsampled_height - firstRow, down.samples * DCTSIZE);
  const unsigned pixelRows = std::min(cinfo_.image_height - top, down.pixels * DCTSIZE);
  fold({band_[component], std::size_t{info.width_in_blocks} * DCTSIZE, info.downsampled_width,
        bandRows},
       across, down,
       {plane_[component] + std::size_t{top / unit} * planeStride_[component],
        planeStride_[component], (cinfo_.image_width + unit - 1) / unit,
        (pixelRows + unit - 1) / unit, unit});
}

bool JpegRows::findUnits(JpegEntries& entries) const {
  const bool grey = cinfo_.num_components == 1;
  if (cinfo_.restart_interval == 0 || cinfo_.progressive_mode || cinfo_.arith_code ||
      cinfo_.comps_in_scan != cinfo_.num_components || cinfo_.jpeg_color_space == JCS_RGB)
    return false;
  // A single component's MCU is one block; a row of them may not be a row for libjpeg.
  if (grey && cinfo_.max_v_samp_factor != 1) return false;
  const unsigned across = DCTSIZE * static_cast<unsigned>(grey ? 1 : cinfo_.max_h_samp_factor);
  return entries.find(data_, size_, size_ - cinfo_.src->bytes_in_buffer,
                      {(cinfo_.image_width + across - 1) / across, cinfo_.total_iMCU_rows,
                       cinfo_.restart_interval});
}

/// Scans that no marker announced, such as those behind an invalid one, have taken up what is
/// allowed: the data ends here.
void JpegRows::onProgress(j_common_ptr common) {
  auto* const decompress = reinterpret_cast<j_decompress_ptr>(common);
  const auto* const progress = reinterpret_cast<const Progress*>(common->progress);
  if (decompress->input_scan_number <= progress->scansAllowed) return;
  decompress->unread_marker = JPEG_EOI;
  auto* const errors = reinterpret_cast<JpegError*>(common->err);
  if (!errors->warned) std::snprintf(errors->text, sizeof errors->text, "%s", tooManyScans);
  errors->warned = true;
}

/// Called for a restart marker of another number than libjpeg counts to. Which stand where was seen
/// before.
boolean JpegRows::onRestart(j_decompress_ptr cinfo, int) {
  if (cinfo->unread_marker == JPEG_EOI)
    JpegError::fail(reinterpret_cast<j_common_ptr>(cinfo), "the end of a unit");
  cinfo->unread_marker = 0;
  return TRUE;
}

// From here on, frames that libjpeg's jump crosses: no C++ objects in them.

void JpegRows::create() {
  cinfo_.err = errors_.install();
  defaults_.err = cinfo_.err;
  jpeg_create_compress(&defaults_);
  jpeg_create_decompress(&cinfo_);
  defaults_.input_components = 3;
  defaults_.in_color_space = JCS_YCbCr;
  jpeg_set_defaults(&defaults_);
  for (int i = 0; i < 2; ++i) {
    cinfo_.dc_huff_tbl_ptrs[i] = jpeg_alloc_huff_table(reinterpret_cast<j_common_ptr>(&cinfo_));
    cinfo_.ac_huff_tbl_ptrs[i] = jpeg_alloc_huff_table(reinterpret_cast<j_common_ptr>(&cinfo_));
  }
  created_ = true;
}

/// libjpeg keeps a picture's tables for the next one; what a picture looks like must not depend on
/// the one before. The standard Huffman tables are what a frame of Motion JPEG does without.
void JpegRows::forgetTables() {
  for (JQUANT_TBL* table : cinfo_.quant_tbl_ptrs)
    if (table != nullptr) std::memset(table->quantval, 0, sizeof table->quantval);
  for (int i = 0; i < NUM_HUFF_TBLS; ++i) {
    for (JHUFF_TBL* table : {cinfo_.dc_huff_tbl_ptrs[i], cinfo_.ac_huff_tbl_ptrs[i]})
      if (table != nullptr) std::memset(table->bits, 0, sizeof table->bits);
    if (i >= 2) continue;
    *cinfo_.dc_huff_tbl_ptrs[i] = *defaults_.dc_huff_tbl_ptrs[i];
    *cinfo_.ac_huff_tbl_ptrs[i] = *defaults_.ac_huff_tbl_ptrs[i];
  }
}

bool JpegRows::open(const std::uint8_t* data, std::size_t size) {
  data_ = data;
  size_ = size;
  if (setjmp(errors_.jump) != 0) {
    if (created_) {
      jpeg_abort_decompress(&cinfo_);
    } else {
      jpeg_destroy_decompress(&cinfo_);
      jpeg_destroy_compress(&defaults_);
    }
    return false;
  }
  if (!created_) create();
  jpeg_abort_decompress(&cinfo_);
  errors_.reset();
  forgetTables();
  jpeg_mem_src(&cinfo_, data, static_cast<unsigned long>(size));
  jpeg_read_header(&cinfo_, TRUE);
  return true;
}

void JpegRows::start(int scansAllowed) {
  errors_.reset();
  cinfo_.raw_data_out = cinfo_.jpeg_color_space == JCS_RGB ? FALSE : TRUE;
  cinfo_.out_color_space = cinfo_.jpeg_color_space;
  cinfo_.dct_method = JDCT_ISLOW;
  progress_.manager.progress_monitor = onProgress;
  progress_.scansAllowed = scansAllowed;
  cinfo_.progress = &progress_.manager;
  jpeg_start_decompress(&cinfo_);
}

/// Reads the next MCU row as the one at that row of pixels.
void JpegRows::readRaw(unsigned top) {
  const auto components = static_cast<unsigned>(cinfo_.num_components);
  const auto step = static_cast<unsigned>(cinfo_.max_v_samp_factor) * DCTSIZE;
  JSAMPROW rows[mostComponents][mostBandRows];
  JSAMPARRAY arrays[mostComponents] = {rows[0], rows[1], rows[2]};
  for (unsigned c = 0; c < components; ++c) {
    const jpeg_component_info& info = cinfo_.comp_info[c];
    const auto count = static_cast<unsigned>(info.v_samp_factor) * DCTSIZE;
    const unsigned first = top / step * count;
    const unsigned limit = info.height_in_blocks * DCTSIZE;
    for (unsigned i = 0; i < count; ++i) {
      if (band_[c] != nullptr)
        rows[c][i] = band_[c] + std::size_t{i} * info.width_in_blocks * DCTSIZE;
      else
        rows[c][i] = first + i < limit ? plane_[c] + std::size_t{first + i} * planeStride_[c]
                                       : spare_.data();
    }
  }
  jpeg_read_raw_data(&cinfo_, arrays, step);
  for (unsigned c = 0; c < components; ++c)
    if (band_[c] != nullptr) foldBand(c, top);
  rowsDone_ = std::min(top + step, cinfo_.image_height);
}

void JpegRows::readRgb() {
  const unsigned width = cinfo_.image_width;
  JSAMPROW rows[2] = {band_[0], band_[0] + std::size_t{width} * 3};
  while (cinfo_.output_scanline < cinfo_.output_height) {
    const unsigned top = cinfo_.output_scanline;
    for (unsigned i = 0; i < 2 && cinfo_.output_scanline < cinfo_.output_height; ++i)
      jpeg_read_scanlines(&cinfo_, rows + i, 1);
    const bool pair = cinfo_.output_scanline - top == 2;
    std::uint8_t* y = plane_[0] + std::size_t{top} * planeStride_[0];
    foldRgb(rows[0], pair ? rows[1] : rows[0], width, y, pair ? y + planeStride_[0] : y,
            plane_[1] + std::size_t{top / 2} * planeStride_[1],
            plane_[2] + std::size_t{top / 2} * planeStride_[2]);
    rowsDone_ = cinfo_.output_scanline;
  }
}

bool JpegRows::readAll(int scansAllowed) {
  rowsDone_ = 0;
  if (setjmp(errors_.jump) != 0) return false;
  start(scansAllowed);
  if (cinfo_.jpeg_color_space == JCS_RGB) {
    readRgb();
  } else {
    while (cinfo_.output_scanline < cinfo_.output_height) readRaw(cinfo_.output_scanline);
  }
  return true;
}

void JpegRows::seek(const std::uint8_t* at, const std::uint8_t* end) {
  cinfo_.unread_marker = 0;
  cinfo_.src->next_input_byte = at;
  cinfo_.src->bytes_in_buffer = static_cast<std::size_t>(end - at);
}

/// Whether all the data up to a marker is used up; the marker may have been read ahead.
bool JpegRows::standsAt(std::size_t marker) const {
  return cinfo_.src->next_input_byte == data_ + marker + (cinfo_.unread_marker != 0 ? 2 : 0);
}

/// Bits left over count as damage, but libjpeg tells of them only when it looks for the next restart
/// marker. It finds one that makes it come back from there.
void JpegRows::checkEnd() {
  seek(endMarker, endMarker + sizeof endMarker);
  left_ = true;
  readRaw(0);
}

void JpegRows::take(JpegUnits& units) {
  const JpegEntries& entries = units.entries;
  const auto step = static_cast<unsigned>(cinfo_.max_v_samp_factor) * DCTSIZE;
  const auto count = static_cast<unsigned>(entries.offsets.size());
  unsigned unit = units.next++;
  for (bool first = true; unit < count && !units.failed; unit = units.next++, first = false) {
    // libjpeg reads the marker in front of a unit itself, unless it stands at the scan's start.
    seek(data_ + entries.offsets[unit] - (first ? 0 : 2), data_ + size_);
    const unsigned end = std::min((unit + 1) * entries.rowsEach, cinfo_.total_iMCU_rows);
    for (unsigned row = unit * entries.rowsEach; row < end; ++row) readRaw(row * step);
    const bool last = unit + 1 == count;
    if (errors_.warned || (!last && !standsAt(entries.offsets[unit + 1] - 2))) units.failed = true;
    if (last) return;
  }
  if (!units.failed && cinfo_.output_scanline > 0) checkEnd();
}

void JpegRows::readUnits(JpegUnits& units) {
  left_ = false;
  if (setjmp(errors_.jump) == 0) {
    start(1);
    cinfo_.src->resync_to_restart = onRestart;
    take(units);
    if (left_) units.failed = true;  // it did not look for the marker
  } else if (errors_.warned || !left_) {
    units.failed = true;
  }
}

void JpegRows::close() {
  jpeg_abort_decompress(&cinfo_);
}

}  // namespace codec
