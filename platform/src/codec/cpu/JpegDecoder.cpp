#include "codec/cpu/JpegDecoder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "codec/Environment.h"
#include "codec/cpu/ChromaFold.h"
#include "codec/cpu/JpegError.h"
#include "codec/cpu/JpegScans.h"

namespace codec {

namespace {

constexpr std::uint8_t noColour = 128;
constexpr unsigned mostComponents = 3;
constexpr unsigned mostBandRows = MAX_SAMP_FACTOR * DCTSIZE;
constexpr char tooManyScans[] = "more scans than the limit allows";
constexpr std::uint64_t usualScans = 20;  ///< more than encoders make

void fill(std::uint8_t* plane, unsigned stride, unsigned width, unsigned from, unsigned to) {
  for (unsigned y = from; y < to; ++y)
    std::memset(plane + std::size_t{y} * stride, noColour, width);
}

}  // namespace

struct JpegDecoder::Impl {
  jpeg_decompress_struct cinfo = {};
  jpeg_compress_struct defaults = {};  // only for its standard Huffman tables
  JpegError errors = {};
  struct Progress {
    jpeg_progress_mgr manager;  // first: libjpeg hands back its address
    int scansAllowed;
  } progress = {};
  Limits limits;
  bool created = false;
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  bool opened = false;  // and not decoded yet
  unsigned width = 0;
  unsigned height = 0;
  unsigned rowsDone = 0;                    // of luma, in the planes for good
  std::vector<std::uint8_t> stage;          // one band of each component that is not in place
  std::vector<std::uint8_t> spare;          // a row that nobody looks at
  std::uint8_t* band[mostComponents] = {};  // in the stage; null: decoded straight to place
  std::uint8_t* plane[mostComponents] = {};
  unsigned planeStride[mostComponents] = {};
  std::string error;

  ~Impl() {
    if (!created) return;
    jpeg_destroy_decompress(&cinfo);
    jpeg_destroy_compress(&defaults);
  }

  bool fail(const char* why) {
    error = why;
    opened = false;
    return false;
  }

  void create();
  void forgetTables();
  bool readHeader();
  unsigned scansAllowed() const;
  const char* objection() const;
  static void onProgress(j_common_ptr common);
  bool hasItsTables() const;

  bool inPlace(unsigned component) const;
  void prepareStage();
  void place(const Planes& planes);
  bool run();
  void readRaw();
  void foldBand(unsigned component, unsigned top);
  void readRgb();
  bool retryShorter();
  void fillRest();
};

// Frames from here to readHeader(), and those marked below, are crossed by libjpeg's jump: no C++
// objects in them.

void JpegDecoder::Impl::create() {
  cinfo.err = errors.install();
  defaults.err = cinfo.err;
  jpeg_create_compress(&defaults);
  jpeg_create_decompress(&cinfo);
  defaults.input_components = 3;
  defaults.in_color_space = JCS_YCbCr;
  jpeg_set_defaults(&defaults);
  for (int i = 0; i < 2; ++i) {
    cinfo.dc_huff_tbl_ptrs[i] = jpeg_alloc_huff_table(reinterpret_cast<j_common_ptr>(&cinfo));
    cinfo.ac_huff_tbl_ptrs[i] = jpeg_alloc_huff_table(reinterpret_cast<j_common_ptr>(&cinfo));
  }
  created = true;
}

/// libjpeg keeps a picture's tables for the next one; what a picture looks like must not depend on
/// the one before. The standard Huffman tables are what a frame of Motion JPEG does without.
void JpegDecoder::Impl::forgetTables() {
  for (JQUANT_TBL* table : cinfo.quant_tbl_ptrs)
    if (table != nullptr) std::memset(table->quantval, 0, sizeof table->quantval);
  for (int i = 0; i < NUM_HUFF_TBLS; ++i) {
    for (JHUFF_TBL* table : {cinfo.dc_huff_tbl_ptrs[i], cinfo.ac_huff_tbl_ptrs[i]})
      if (table != nullptr) std::memset(table->bits, 0, sizeof table->bits);
    if (i >= 2) continue;
    *cinfo.dc_huff_tbl_ptrs[i] = *defaults.dc_huff_tbl_ptrs[i];
    *cinfo.ac_huff_tbl_ptrs[i] = *defaults.ac_huff_tbl_ptrs[i];
  }
}

bool JpegDecoder::Impl::readHeader() {
  if (setjmp(errors.jump) != 0) {
    if (created) {
      jpeg_abort_decompress(&cinfo);
    } else {
      jpeg_destroy_decompress(&cinfo);
      jpeg_destroy_compress(&defaults);
    }
    return false;
  }
  if (!created) create();
  jpeg_abort_decompress(&cinfo);
  errors.reset();
  forgetTables();
  jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
  jpeg_read_header(&cinfo, TRUE);
  return true;
}

bool JpegDecoder::Impl::hasItsTables() const {
  for (int i = 0; i < cinfo.num_components; ++i) {
    const int index = cinfo.comp_info[i].quant_tbl_no;
    if (index < 0 || index >= NUM_QUANT_TBLS || cinfo.quant_tbl_ptrs[index] == nullptr ||
        cinfo.quant_tbl_ptrs[index]->quantval[0] == 0)
      return false;
  }
  return true;
}

unsigned JpegDecoder::Impl::scansAllowed() const {
  const std::uint64_t pixels = std::uint64_t{cinfo.image_width} * cinfo.image_height;
  const std::uint64_t affordable = std::max(usualScans, limits.work / pixels);
  return static_cast<unsigned>(std::min<std::uint64_t>(limits.scans, affordable));
}

/// Scans that no marker announced, such as those behind an invalid one, have taken up what is
/// allowed: the data ends here.
void JpegDecoder::Impl::onProgress(j_common_ptr common) {
  auto* const decompress = reinterpret_cast<j_decompress_ptr>(common);
  const auto* const progress = reinterpret_cast<const Progress*>(common->progress);
  if (decompress->input_scan_number <= progress->scansAllowed) return;
  decompress->unread_marker = JPEG_EOI;
  auto* const errors = reinterpret_cast<JpegError*>(common->err);
  if (!errors->warned) std::snprintf(errors->text, sizeof errors->text, "%s", tooManyScans);
  errors->warned = true;
}

/// What speaks against decoding the picture whose header was read; null: nothing.
const char* JpegDecoder::Impl::objection() const {
  const std::uint64_t pixels = std::uint64_t{cinfo.image_width} * cinfo.image_height;
  if (cinfo.image_width > limits.width || cinfo.image_height > limits.height ||
      pixels > limits.pixels)
    return "more pixels than the limit allows";
  if (cinfo.num_components != 1 && cinfo.num_components != 3)
    return "neither grey nor three colour components";
  const bool severalScans = jpeg_has_multiple_scans(const_cast<j_decompress_ptr>(&cinfo)) != 0;
  if (severalScans && findScans(data, size).count > scansAllowed()) return tooManyScans;
  if (hasBoardLimits() && (cinfo.progressive_mode || cinfo.arith_code))
    return "the board takes baseline pictures only";
  if (!severalScans && !hasItsTables()) return "a quantisation table is missing";
  return nullptr;
}

/// Whether libjpeg can write the component where the caller wants it.
bool JpegDecoder::Impl::inPlace(unsigned component) const {
  const jpeg_component_info& info = cinfo.comp_info[component];
  const int unit = component == 0 ? 1 : 2;
  return cinfo.jpeg_color_space != JCS_RGB &&
         info.h_samp_factor * unit == cinfo.max_h_samp_factor &&
         info.v_samp_factor * unit == cinfo.max_v_samp_factor;
}

void JpegDecoder::Impl::prepareStage() {
  std::size_t sizes[mostComponents] = {}, sum = 0;
  const auto components = static_cast<unsigned>(cinfo.num_components);
  if (cinfo.jpeg_color_space == JCS_RGB) {
    sum = sizes[0] = std::size_t{cinfo.image_width} * 6;
  } else {
    for (unsigned i = 0; i < components; ++i) {
      const jpeg_component_info& info = cinfo.comp_info[i];
      if (inPlace(i)) continue;
      sizes[i] = std::size_t{info.width_in_blocks} * DCTSIZE * DCTSIZE *
                 static_cast<unsigned>(info.v_samp_factor);
      sum += sizes[i];
    }
  }
  if (stage.size() < sum) stage.resize(sum);
  if (spare.size() < cinfo.image_width + mostBandRows)
    spare.resize(roundUp(cinfo.image_width, 32) + mostBandRows);
  std::size_t at = 0;
  for (unsigned i = 0; i < mostComponents; ++i) {
    band[i] = sizes[i] == 0 ? nullptr : stage.data() + at;
    at += sizes[i];
  }
}

void JpegDecoder::Impl::foldBand(unsigned component, unsigned top) {
  const jpeg_component_info& info = cinfo.comp_info[component];
  const unsigned unit = component == 0 ? 1 : 2;
  const Ratio across{static_cast<unsigned>(info.h_samp_factor),
                     static_cast<unsigned>(cinfo.max_h_samp_factor)};
  const Ratio down{static_cast<unsigned>(info.v_samp_factor),
                   static_cast<unsigned>(cinfo.max_v_samp_factor)};
  const unsigned firstRow = top * down.samples / down.pixels;
  const unsigned bandRows = std::min(info.downsampled_height - firstRow, down.samples * DCTSIZE);
  const unsigned pixelRows = std::min(cinfo.image_height - top, down.pixels * DCTSIZE);
  fold({band[component], std::size_t{info.width_in_blocks} * DCTSIZE, info.downsampled_width,
        bandRows},
       across, down,
       {plane[component] + std::size_t{top / unit} * planeStride[component], planeStride[component],
        (cinfo.image_width + unit - 1) / unit, (pixelRows + unit - 1) / unit, unit});
}

// Crossed by the jump: readRaw(), readRgb() and run().

void JpegDecoder::Impl::readRaw() {
  const auto components = static_cast<unsigned>(cinfo.num_components);
  const auto step = static_cast<unsigned>(cinfo.max_v_samp_factor) * DCTSIZE;
  JSAMPROW rows[mostComponents][mostBandRows];
  JSAMPARRAY arrays[mostComponents] = {rows[0], rows[1], rows[2]};
  while (cinfo.output_scanline < cinfo.output_height) {
    const unsigned top = cinfo.output_scanline;
    for (unsigned c = 0; c < components; ++c) {
      const jpeg_component_info& info = cinfo.comp_info[c];
      const auto count = static_cast<unsigned>(info.v_samp_factor) * DCTSIZE;
      const unsigned first = top / step * count;
      const unsigned limit = info.height_in_blocks * DCTSIZE;
      for (unsigned i = 0; i < count; ++i) {
        if (band[c] != nullptr)
          rows[c][i] = band[c] + std::size_t{i} * info.width_in_blocks * DCTSIZE;
        else
          rows[c][i] =
              first + i < limit ? plane[c] + std::size_t{first + i} * planeStride[c] : spare.data();
      }
    }
    jpeg_read_raw_data(&cinfo, arrays, step);
    for (unsigned c = 0; c < components; ++c)
      if (band[c] != nullptr) foldBand(c, top);
    rowsDone = std::min(top + step, cinfo.image_height);
  }
}

void JpegDecoder::Impl::readRgb() {
  JSAMPROW rows[2] = {band[0], band[0] + std::size_t{width} * 3};
  while (cinfo.output_scanline < cinfo.output_height) {
    const unsigned top = cinfo.output_scanline;
    for (unsigned i = 0; i < 2 && cinfo.output_scanline < cinfo.output_height; ++i)
      jpeg_read_scanlines(&cinfo, rows + i, 1);
    const bool pair = cinfo.output_scanline - top == 2;
    std::uint8_t* y = plane[0] + std::size_t{top} * planeStride[0];
    foldRgb(rows[0], pair ? rows[1] : rows[0], width, y, pair ? y + planeStride[0] : y,
            plane[1] + std::size_t{top / 2} * planeStride[1],
            plane[2] + std::size_t{top / 2} * planeStride[2]);
    rowsDone = cinfo.output_scanline;
  }
}

bool JpegDecoder::Impl::run() {
  if (setjmp(errors.jump) != 0) return false;
  errors.reset();
  const bool rgb = cinfo.jpeg_color_space == JCS_RGB;
  cinfo.raw_data_out = rgb ? FALSE : TRUE;
  cinfo.out_color_space = cinfo.jpeg_color_space;
  cinfo.dct_method = JDCT_ISLOW;
  progress.manager.progress_monitor = onProgress;
  progress.scansAllowed = static_cast<int>(scansAllowed());
  cinfo.progress = &progress.manager;
  jpeg_start_decompress(&cinfo);
  if (rgb)
    readRgb();
  else
    readRaw();
  return true;
}

void JpegDecoder::Impl::place(const Planes& planes) {
  plane[0] = planes.y;
  plane[1] = planes.u;
  plane[2] = planes.v;
  planeStride[0] = planes.yStride;
  planeStride[1] = planeStride[2] = planes.uvStride;
  rowsDone = 0;
}

/// After a mistake between the scans of a picture: once more with what stands before it only.
bool JpegDecoder::Impl::retryShorter() {
  if (rowsDone > 0 || jpeg_has_multiple_scans(&cinfo) == 0) return false;
  const JpegScans scans = findScans(data, size - cinfo.src->bytes_in_buffer);
  if (scans.count == 0) return false;
  size = scans.lastSegment;
  return readHeader() && run();
}

void JpegDecoder::Impl::fillRest() {
  fill(plane[0], planeStride[0], width, rowsDone, height);
  // A chroma row belongs to the pair of luma rows that it starts in.
  const unsigned from = cinfo.num_components == 1 ? 0 : (rowsDone + 1) / 2;
  for (unsigned c = 1; c < mostComponents; ++c)
    fill(plane[c], planeStride[c], (width + 1) / 2, from, (height + 1) / 2);
}

JpegDecoder::JpegDecoder() : JpegDecoder(Limits()) {}
JpegDecoder::JpegDecoder(const Limits& limits) : impl_(std::make_unique<Impl>()) {
  impl_->limits = limits;
}
JpegDecoder::~JpegDecoder() = default;

bool JpegDecoder::open(const std::uint8_t* data, std::size_t size) try {
  Impl& impl = *impl_;
  impl.error.clear();
  impl.data = data;
  impl.size = size;
  impl.width = impl.height = 0;
  if (data == nullptr || size == 0) return impl.fail("no data");
  if (!impl.readHeader()) return impl.fail(impl.errors.text);
  const char* objection = impl.objection();
  if (objection != nullptr) return impl.fail(objection);
  impl.opened = true;
  impl.width = impl.cinfo.image_width;
  impl.height = impl.cinfo.image_height;
  return true;
} catch (const std::bad_alloc&) {  // not even for the reason
  impl_->opened = false;
  return false;
}

unsigned JpegDecoder::width() const {
  return impl_->width;
}
unsigned JpegDecoder::height() const {
  return impl_->height;
}

JpegDecoder::Result JpegDecoder::decode(const Planes& planes) try {
  Impl& impl = *impl_;
  if (!impl.opened) {
    impl.error = "no picture was opened";
    return Result::Unusable;
  }
  impl.opened = false;
  impl.prepareStage();
  impl.place(planes);
  bool whole = impl.run();
  bool damaged = impl.errors.warned;
  if (!whole || damaged) impl.error = impl.errors.text;
  if (!whole) {
    damaged = true;
    whole = impl.retryShorter();
  }
  // Gives the picture's memory back; the tables stay.
  jpeg_abort_decompress(&impl.cinfo);
  if (!whole && impl.rowsDone == 0) return Result::Unusable;
  impl.fillRest();
  return damaged ? Result::Damaged : Result::Complete;
} catch (const std::bad_alloc&) {
  jpeg_abort_decompress(&impl_->cinfo);
  impl_->error = "no memory";  // short enough to need none
  return Result::Unusable;
}

const std::string& JpegDecoder::error() const {
  return impl_->error;
}

}  // namespace codec
