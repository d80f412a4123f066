#include "codec/cpu/JpegDecoder.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "codec/Environment.h"
#include "codec/cpu/JpegRows.h"
#include "codec/cpu/JpegScans.h"
#include "codec/cpu/WorkCrew.h"

namespace codec {

namespace {

constexpr std::uint8_t noColour = 128;
constexpr std::uint64_t usualScans = 20;           ///< more than encoders make
constexpr std::uint64_t threadPixels = 320 * 200;  ///< fewer are not worth waking a thread for

void fill(std::uint8_t* plane, unsigned stride, unsigned width, unsigned from, unsigned to) {
  for (unsigned y = from; y < to; ++y)
    std::memset(plane + std::size_t{y} * stride, noColour, width);
}

}  // namespace

struct JpegDecoder::Impl {
  explicit Impl(const Limits& bounds) : limits(bounds), crew(bounds.threads) {}

  const Limits limits;
  JpegRows rows;
  std::vector<std::unique_ptr<JpegRows>> others;  // one for each thread that helps
  JpegUnits units;
  WorkCrew crew;
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  bool opened = false;  // and not decoded yet
  unsigned width = 0;
  unsigned height = 0;
  unsigned threadsTaken = 0;
  std::string error;

  bool fail(const char* why) {
    error = why;
    opened = false;
    return false;
  }

  unsigned scansAllowed() const;
  const char* objection() const;
  bool hasItsTables() const;

  unsigned threadsFor();
  bool decodeTogether(unsigned threads, const Planes& planes);
  Result decodeAlone(const Planes& planes);
  bool retryShorter();
  void fillRest(const Planes& planes, unsigned done);
};

bool JpegDecoder::Impl::hasItsTables() const {
  const jpeg_decompress_struct& cinfo = rows.info();
  for (int i = 0; i < cinfo.num_components; ++i) {
    const int index = cinfo.comp_info[i].quant_tbl_no;
    if (index < 0 || index >= NUM_QUANT_TBLS || cinfo.quant_tbl_ptrs[index] == nullptr ||
        cinfo.quant_tbl_ptrs[index]->quantval[0] == 0)
      return false;
  }
  return true;
}

unsigned JpegDecoder::Impl::scansAllowed() const {
  const jpeg_decompress_struct& cinfo = rows.info();
  const std::uint64_t pixels = std::uint64_t{cinfo.image_width} * cinfo.image_height;
  const std::uint64_t affordable = std::max(usualScans, limits.work / pixels);
  return static_cast<unsigned>(std::min<std::uint64_t>(limits.scans, affordable));
}

/// What speaks against decoding the picture whose header was read; null: nothing.
const char* JpegDecoder::Impl::objection() const {
  const jpeg_decompress_struct& cinfo = rows.info();
  const std::uint64_t pixels = std::uint64_t{cinfo.image_width} * cinfo.image_height;
  if (cinfo.image_width > limits.width || cinfo.image_height > limits.height ||
      pixels > limits.pixels)
    return "more pixels than the limit allows";
  if (cinfo.num_components != 1 && cinfo.num_components != 3)
    return "neither grey nor three colour components";
  const bool severalScans = jpeg_has_multiple_scans(const_cast<j_decompress_ptr>(&cinfo)) != 0;
  if (severalScans && findScans(data, size).count > scansAllowed()) return JpegRows::tooManyScans;
  if (hasBoardLimits() && (cinfo.progressive_mode || cinfo.arith_code))
    return "the board takes baseline pictures only";
  if (!severalScans && !hasItsTables()) return "a quantisation table is missing";
  return nullptr;
}

/// How many threads are to decode the opened picture.
unsigned JpegDecoder::Impl::threadsFor() {
  std::uint64_t threads = limits.threads;
  if (threads == 0) {
    threads = std::uint64_t{width} * height / threadPixels;
    if (threads > 1) threads = std::min<std::uint64_t>(threads, WorkCrew::processors());
  }
  if (threads < 2 || !rows.findUnits(units.entries)) return 1;
  return static_cast<unsigned>(std::min<std::uint64_t>(threads, units.entries.offsets.size()));
}

/// Decodes a picture with restart markers. @return false where that may not have given what one
/// thread gives
bool JpegDecoder::Impl::decodeTogether(unsigned threads, const Planes& planes) {
  while (others.size() < threads - 1) others.push_back(std::make_unique<JpegRows>());
  for (unsigned i = 1; i < threads; ++i) others[i - 1]->place(rows.info(), planes);
  units.next = 0;
  units.failed = false;
  crew.run(threads, [this](unsigned i) {
    JpegRows& reader = i == 0 ? rows : *others[i - 1];
    // The others may have done it all before this one got up.
    if (units.next < units.entries.offsets.size() && (i == 0 || reader.open(data, size)))
      reader.readUnits(units);
    reader.close();
  });
  if (units.failed) return false;
  fillRest(planes, height);  // a grey picture's chroma
  return true;
}

JpegDecoder::Result JpegDecoder::Impl::decodeAlone(const Planes& planes) {
  bool whole = rows.readAll(static_cast<int>(scansAllowed()));
  bool damaged = rows.warned();
  if (!whole || damaged) error = rows.error();
  if (!whole) {
    damaged = true;
    whole = retryShorter();
  }
  rows.close();
  if (!whole && rows.rowsDone() == 0) return Result::Unusable;
  fillRest(planes, rows.rowsDone());
  return damaged ? Result::Damaged : Result::Complete;
}

/// After a mistake between the scans of a picture: once more with what stands before it only.
bool JpegDecoder::Impl::retryShorter() {
  if (rows.rowsDone() > 0 || jpeg_has_multiple_scans(&rows.info()) == 0) return false;
  const JpegScans scans = findScans(data, size - rows.info().src->bytes_in_buffer);
  if (scans.count == 0) return false;
  size = scans.lastSegment;
  return rows.open(data, size) && rows.readAll(static_cast<int>(scansAllowed()));
}

void JpegDecoder::Impl::fillRest(const Planes& planes, unsigned done) {
  fill(planes.y, planes.yStride, width, done, height);
  // A chroma row belongs to the pair of luma rows that it starts in.
  const unsigned from = rows.info().num_components == 1 ? 0 : (done + 1) / 2;
  for (std::uint8_t* plane : {planes.u, planes.v})
    fill(plane, planes.uvStride, (width + 1) / 2, from, (height + 1) / 2);
}

JpegDecoder::JpegDecoder() : JpegDecoder(Limits()) {}
JpegDecoder::JpegDecoder(const Limits& limits) : impl_(std::make_unique<Impl>(limits)) {}
JpegDecoder::~JpegDecoder() = default;

bool JpegDecoder::open(const std::uint8_t* data, std::size_t size) try {
  Impl& impl = *impl_;
  impl.error.clear();
  impl.data = data;
  impl.size = size;
  impl.width = impl.height = 0;
  if (data == nullptr || size == 0) return impl.fail("no data");
  if (!impl.rows.open(data, size)) return impl.fail(impl.rows.error());
  const char* objection = impl.objection();
  if (objection != nullptr) return impl.fail(objection);
  impl.opened = true;
  impl.width = impl.rows.info().image_width;
  impl.height = impl.rows.info().image_height;
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
  impl.rows.place(impl.rows.info(), planes);
  const unsigned threads = impl.threadsTaken = impl.threadsFor();
  if (threads > 1) {
    if (impl.decodeTogether(threads, planes)) return Result::Complete;
    impl.threadsTaken = 1;
    if (!impl.rows.open(impl.data, impl.size)) {
      impl.error = impl.rows.error();
      return Result::Unusable;
    }
  }
  return impl.decodeAlone(planes);
} catch (const std::bad_alloc&) {
  impl_->rows.close();
  impl_->error = "no memory";  // short enough to need none
  return Result::Unusable;
}

unsigned JpegDecoder::threadsTaken() const {
  return impl_->threadsTaken;
}

const std::string& JpegDecoder::error() const {
  return impl_->error;
}

}  // namespace codec
