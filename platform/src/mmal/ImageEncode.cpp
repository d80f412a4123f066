#include "mmal/ImageEncode.h"

#include <algorithm>
#include <cstring>

#include "interface/mmal/util/mmal_util.h"
#include "mmal/Parameter.h"

namespace mmal {

namespace {

struct Packed {
  MMAL_FOURCC_T encoding;
  codec::PixelFormat format;
  unsigned samplesPerTwoPixels;  ///< that the JPEG codes: 4:2:2 has 4, 4:2:0 has 3
};

constexpr Packed inputs[] = {
    {MMAL_ENCODING_YUYV, codec::PixelFormat::Yuyv, 4},
    {MMAL_ENCODING_RGB16, codec::PixelFormat::Rgb565, 3},
    {MMAL_ENCODING_RGB24, codec::PixelFormat::Rgb24, 3},
    {MMAL_ENCODING_RGBA, codec::PixelFormat::Rgba32, 3},
};

const Packed* packedOf(MMAL_FOURCC_T encoding) {
  for (const Packed& each : inputs)
    if (each.encoding == encoding) return &each;
  return nullptr;
}

// No sample takes more than 18 bits on average: the energy of 64 samples allows 64 coefficients of
// 128, which take a 10-bit code and 8 bits each with the standard tables and no quantisation, and
// the few larger ones cost more energy than bits. Stuffing adds a byte to at most every 18 bits.
// That makes 3.25 bytes a sample; headers and the end fit in the constant.
std::uint32_t largestJpeg(const Packed& packed, std::uint32_t width, std::uint32_t height) {
  const std::uint64_t samples = std::uint64_t{width} * height * packed.samplesPerTwoPixels / 2;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(samples * 13 / 4 + 4096, UINT32_MAX));
}

constexpr std::uint32_t smallestOutput = 1024;
constexpr std::uint32_t defaultOutput = 64 * 1024;

}  // namespace

ImageEncode::ImageEncode() : Component(publishedName) {
  input0().committed.encoding = MMAL_ENCODING_YUYV;
  output0().committed.encoding = MMAL_ENCODING_JPEG;
}

MMAL_STATUS_T ImageEncode::checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const {
  if (target.isOutput()) return format.encoding == MMAL_ENCODING_JPEG ? MMAL_SUCCESS : MMAL_EINVAL;
  if (packedOf(format.encoding) == nullptr) return MMAL_EINVAL;
  return rawGeometryFits(format.es->video) ? MMAL_SUCCESS : MMAL_EINVAL;
}

void ImageEncode::setRequirements() {
  const Format& raw = input0().committed;
  const std::uint32_t frame = rawFrameBytes(raw.encoding, raw.video().width, raw.video().height);
  input0().require(1, std::max(frame, 1u), std::max(frame, 1u));
  const std::uint32_t jpeg =
      frame == 0 ? defaultOutput
                 : largestJpeg(*packedOf(raw.encoding), raw.video().width, raw.video().height);
  output0().require(1, jpeg, smallestOutput);
}

MMAL_STATUS_T ImageEncode::setOwnParameter(Port& target, const MMAL_PARAMETER_HEADER_T& parameter) {
  if (!target.isOutput() || parameter.id != MMAL_PARAMETER_JPEG_Q_FACTOR) return MMAL_ENOSYS;
  MMAL_PARAMETER_UINT32_T quality;
  if (!read(parameter, quality) || quality.value < 1 || quality.value > 100) return MMAL_EINVAL;
  quality_ = quality.value;
  return MMAL_SUCCESS;
}

MMAL_STATUS_T ImageEncode::getOwnParameter(Port& target, MMAL_PARAMETER_HEADER_T& parameter) {
  if (!target.isOutput() || parameter.id != MMAL_PARAMETER_JPEG_Q_FACTOR) return MMAL_ENOSYS;
  return fill(parameter, MMAL_PARAMETER_UINT32_T{{}, quality_});
}

std::vector<MMAL_FOURCC_T> ImageEncode::encodings(const Port& target) const {
  if (target.isOutput()) return {MMAL_ENCODING_JPEG};
  std::vector<MMAL_FOURCC_T> codes;
  for (const Packed& each : inputs) codes.push_back(each.encoding);
  return codes;
}

bool ImageEncode::work() {
  if (ready_) {
    Header* const out = front(output0());
    if (out == nullptr) return false;
    write(*out);
    giveBack(output0());
    return true;
  }
  Header* const in = front(input0());
  if (in == nullptr) return false;
  const bool wanted = in->length > 0;
  // A shortage costs the picture, whose buffer goes out empty; an error event would be for good.
  ready_ = wanted && (encode(*in) || encoder_->lacksMemory());
  giveBack(input0());
  if (wanted && !ready_) raiseError(MMAL_EIO);
  return true;
}

// Straight from the client's buffer. The picture lies in the corner of rows as long as the format's
// padded width.
bool ImageEncode::encode(const Header& in) {
  int quality;
  codec::PackedPicture picture;
  {
    const auto held = lock();
    const Format& raw = input0().committed;
    const MMAL_RECT_T crop = pictureOf(raw.video());
    const unsigned stride = mmal_encoding_width_to_stride(raw.encoding, raw.video().width);
    const unsigned bytesPerPixel = stride / raw.video().width;
    const std::size_t start = std::size_t{stride} * crop.y + std::size_t{bytesPerPixel} * crop.x;
    picture.data = in.data + in.offset + start;
    picture.size = in.length > start ? in.length - start : 0;
    picture.format = packedOf(raw.encoding)->format;
    picture.stride = stride;
    picture.width = static_cast<unsigned>(crop.width);
    picture.height = static_cast<unsigned>(crop.height);
    quality = static_cast<int>(quality_);
  }
  pts_ = in.pts;
  written_ = 0;
  return encoder_->encode(picture, quality);
}

void ImageEncode::write(Header& out) {
  const std::size_t rest = encoder_->size() - written_;
  const std::size_t part = std::min<std::size_t>(rest, out.alloc_size);
  if (part > 0) std::memcpy(out.data, encoder_->data() + written_, part);
  out.length = static_cast<std::uint32_t>(part);
  out.pts = pts_;
  if (written_ == 0) out.flags |= MMAL_BUFFER_HEADER_FLAG_FRAME_START;
  written_ += part;
  if (part < rest) return;
  out.flags |= MMAL_BUFFER_HEADER_FLAG_FRAME_END | MMAL_BUFFER_HEADER_FLAG_EOS;
  ready_ = false;
}

// A JPEG that nobody has fetched is not the answer to a later picture.
void ImageEncode::discard(Port&) {
  ready_ = false;
}

}  // namespace mmal
