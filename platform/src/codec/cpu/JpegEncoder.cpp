#include "codec/cpu/JpegEncoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "codec/cpu/JpegScans.h"
#include "codec/cpu/JpegStrip.h"
#include "codec/cpu/WorkCrew.h"

namespace codec {

namespace {

/// A large picture is cut into this many strips, whatever the machine: the same picture gives the
/// same bytes everywhere.
constexpr unsigned mostStrips = 4;
constexpr unsigned stripPixels = 320 * 200;  // fewer are not worth waking a thread for
constexpr unsigned mcuWidth = 16;            // of 4:2:2 and 4:2:0 alike
constexpr unsigned largestInterval = 65535;  // MCUs between restart markers

constexpr std::uint8_t frameMarker = 0xc0, restartMarker = 0xd0;
constexpr std::size_t heightInFrame = 5;  // offset in the frame header's segment

/// How a picture is cut.
struct Plan {
  unsigned strips = 1;
  unsigned stripRows = 0;
  unsigned interval = 0;  ///< MCUs of a strip, 0 for a single one
};

Plan planFor(const PackedPicture& picture) {
  const unsigned mcuRows = JpegStrip::mcuRows(picture.format);
  const unsigned rows = (picture.height + mcuRows - 1) / mcuRows;
  const unsigned columns = (picture.width + mcuWidth - 1) / mcuWidth;
  const unsigned rowsEach = (rows + mostStrips - 1) / mostStrips;
  Plan plan;
  plan.stripRows = picture.height;
  if (std::uint64_t{picture.width} * picture.height < std::uint64_t{stripPixels} * mostStrips ||
      rows < mostStrips || rowsEach * columns > largestInterval)
    return plan;
  plan.strips = (rows + rowsEach - 1) / rowsEach;
  plan.stripRows = rowsEach * mcuRows;
  plan.interval = rowsEach * columns;
  return plan;
}

}  // namespace

/// Strips are JPEGs of their own that several threads make at once. What comes behind a strip's
/// headers is what a single JPEG has between two restart markers, so that joining them is
/// concatenation.
struct JpegEncoder::Impl {
  std::array<JpegStrip, mostStrips> strips;
  WorkCrew crew;
  std::string error;
  bool lacksMemory = false;

  bool fail(const char* why) {
    strips[0].resize(0);
    error = why;
    return false;
  }
  bool encodeStrips(const PackedPicture& picture, const PackedRows& rows, int quality,
                    const Plan& plan);
  bool join(unsigned height, unsigned count);
};

bool JpegEncoder::Impl::encodeStrips(const PackedPicture& picture, const PackedRows& rows,
                                     int quality, const Plan& plan) {
  std::array<bool, mostStrips> good = {};
  const auto encodeOne = [&](unsigned i) {
    const unsigned top = i * plan.stripRows;
    const unsigned height = std::min(plan.stripRows, picture.height - top);
    good[i] = strips[i].encode({&picture, &rows, top, height, quality, plan.interval});
  };
  if (plan.strips == 1)
    encodeOne(0);
  else
    crew.run(plan.strips, encodeOne);
  for (unsigned i = 0; i < plan.strips; ++i)
    if (!good[i]) return fail(strips[i].error());
  return true;
}

/// Makes the first strip's JPEG the whole picture's.
bool JpegEncoder::Impl::join(unsigned height, unsigned count) {
  JpegStrip& whole = strips[0];
  std::uint8_t* frame = whole.data() + findSegment(whole.data(), whole.size(), frameMarker);
  frame[heightInFrame] = static_cast<std::uint8_t>(height >> 8);
  frame[heightInFrame + 1] = static_cast<std::uint8_t>(height);
  for (unsigned i = 1; i < count; ++i) {
    JpegStrip& strip = strips[i];
    const std::size_t from = findScanData(strip.data(), strip.size());
    const std::size_t at = whole.size();
    // The restart marker takes the place of the end-of-image marker.
    if (!whole.resize(at + strip.size() - from)) return fail(whole.error());
    whole.data()[at - 1] = static_cast<std::uint8_t>(restartMarker + (i - 1) % 8);
    std::memcpy(whole.data() + at, strip.data() + from, strip.size() - from);
  }
  return true;
}

JpegEncoder::JpegEncoder() : impl_(std::make_unique<Impl>()) {}
JpegEncoder::~JpegEncoder() = default;

bool JpegEncoder::encode(const PackedPicture& picture, int quality) try {
  Impl& impl = *impl_;
  impl.error.clear();
  impl.lacksMemory = false;
  impl.strips[0].resize(0);
  if (picture.width == 0 || picture.height == 0) return impl.fail("an empty picture");
  if (picture.width > JPEG_MAX_DIMENSION || picture.height > JPEG_MAX_DIMENSION)
    return impl.fail("a side longer than 65,500 pixels");
  if (quality < 1 || quality > 100) return impl.fail("a quality outside 1 to 100");
  const PackedRows rows(picture);
  if (rows.covered() == 0) return impl.fail("less data than one row");
  const Plan plan = planFor(picture);
  // With arguments as good as these nothing but memory can be missing.
  impl.lacksMemory = !(impl.encodeStrips(picture, rows, quality, plan) &&
                       (plan.strips == 1 || impl.join(picture.height, plan.strips)));
  return !impl.lacksMemory;
} catch (const std::exception&) {
  impl_->strips[0].resize(0);
  impl_->lacksMemory = true;
  return false;
}

bool JpegEncoder::lacksMemory() const {
  return impl_->lacksMemory;
}

const std::uint8_t* JpegEncoder::data() const {
  return impl_->strips[0].data();
}
std::size_t JpegEncoder::size() const {
  return impl_->strips[0].size();
}
const std::string& JpegEncoder::error() const {
  return impl_->error;
}

}  // namespace codec
