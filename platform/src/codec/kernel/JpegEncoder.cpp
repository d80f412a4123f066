#include "codec/kernel/JpegEncoder.h"

#include <libyuv/convert_from_argb.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "codec/PackedRows.h"
#include "codec/cpu/ChromaFold.h"
#include "codec/cpu/JpegScans.h"
#include "codec/kernel/Devices.h"
#include "codec/kernel/RawFrame.h"

namespace codec::kernel {

namespace {

constexpr std::size_t headerRoom = 64 * 1024;

void expandRow(const PackedRows& rows, const PackedPicture& picture, unsigned y,
               std::uint8_t* rgb) {
  if (picture.format == PixelFormat::Rgb565 || picture.format == PixelFormat::Argb1887) {
    rows.expand(y, rgb);
    return;
  }
  // libyuv names pixels by the words that they are, last byte first.
  const int width = static_cast<int>(picture.width);
  if (picture.format == PixelFormat::Rgba32)
    libyuv::ARGBToRGB24(rows.row(y), 0, rgb, 0, width, 1);
  else if (picture.format == PixelFormat::Bgra32)
    libyuv::ARGBToRAW(rows.row(y), 0, rgb, 0, width, 1);
  else
    std::memcpy(rgb, rows.row(y), std::size_t{picture.width} * 3);
}

}  // namespace

bool JpegEncoder::fail(const std::string& why) {
  error_ = why;
  size_ = 0;
  return false;
}

bool JpegEncoder::encode(const PackedPicture& picture, int quality) try {
  error_.clear();
  size_ = 0;
  lacksMemory_ = false;
  if (picture.width == 0 || picture.height == 0) return fail("an empty picture");
  if (PackedRows(picture).covered() == 0) return fail("less data than one row");
  if (!prepare(picture)) {
    gaveUp_ = true;
    return false;
  }
  Buffer* const buffer = setQuality(quality) ? encoder_.inputBuffer() : nullptr;
  M2mEncoder::Outcome outcome = M2mEncoder::Outcome::Failed;
  if (buffer != nullptr && write(picture, *buffer) && encoder_.submit(*buffer))
    outcome = encoder_.collect();
  if (outcome == M2mEncoder::Outcome::Dropped) outcome = encoder_.drain();
  if (outcome == M2mEncoder::Outcome::Data) {
    size_ = encoder_.data().used[0];
    gaveUp_ = false;
    if (cutToSize()) return true;
    fail(encoder_.device().path() + ": gives a picture of another size");
    gaveUp_ = true;
    return false;
  }
  const bool dropped = outcome == M2mEncoder::Outcome::Dropped;
  const bool noQuality = buffer == nullptr && quality_ != quality;
  if (noQuality)
    fail(encoder_.device().path() + ": does not take a quality");
  else
    fail(dropped ? encoder_.device().path() + ": gives no picture" : encoder_.error());
  encoder_.close();
  gaveUp_ = true;
  return false;
} catch (const std::bad_alloc&) {
  encoder_.close();
  size_ = 0;
  gaveUp_ = false;
  lacksMemory_ = true;
  return false;
}

/// A device that rounded the size up has coded the same blocks as for the size that was asked for:
/// it is a matter of two numbers in the frame header.
bool JpegEncoder::cutToSize() {
  std::uint8_t* const jpeg = encoder_.data().data[0];
  std::size_t at = size_;
  for (std::uint8_t marker = 0xc0; marker <= 0xc2 && at == size_; ++marker)
    at = findSegment(jpeg, size_, marker);
  constexpr std::size_t headerBytes = 12;  // up to the first component's sampling
  if (at + headerBytes > size_) return false;
  const unsigned height = jpeg[at + 5] * 256u + jpeg[at + 6];
  const unsigned width = jpeg[at + 7] * 256u + jpeg[at + 8];
  const unsigned across = jpeg[at + 11] / 16 * 8u, down = jpeg[at + 11] % 16 * 8u;
  if (width == width_ && height == height_) return true;
  const auto blocks = [](unsigned side, unsigned block) { return (side + block - 1) / block; };
  if (across == 0 || down == 0 || blocks(width, across) != blocks(width_, across) ||
      blocks(height, down) != blocks(height_, down))
    return false;
  jpeg[at + 5] = static_cast<std::uint8_t>(height_ >> 8);
  jpeg[at + 6] = static_cast<std::uint8_t>(height_);
  jpeg[at + 7] = static_cast<std::uint8_t>(width_ >> 8);
  jpeg[at + 8] = static_cast<std::uint8_t>(width_);
  return true;
}

bool JpegEncoder::isOfKind(const PackedPicture& picture) const {
  return width_ == picture.width && height_ == picture.height &&
         (format_ == PixelFormat::Yuyv) == (picture.format == PixelFormat::Yuyv);
}

bool JpegEncoder::prepare(const PackedPicture& picture) {
  if (encoder_.isOpen() && isOfKind(picture)) return true;
  encoder_.close();
  width_ = picture.width;
  height_ = picture.height;
  format_ = picture.format;
  quality_ = 0;
  std::vector<std::string> reasons;
  const Work work{true, {V4L2_PIX_FMT_JPEG, V4L2_PIX_FMT_MJPEG}, width_, height_};
  for (const Offer& offer : offersFor(work, reasons)) {
    if (openOn(offer.path, offer.coded)) return true;
    reasons.push_back(encoder_.error());
    encoder_.close();
  }
  std::string why = "no device encodes JPEG";
  for (const std::string& reason : reasons) why += "; " + reason;
  return fail(why);
}

bool JpegEncoder::openOn(const std::string& path, std::uint32_t coded) {
  M2mEncoder::Setup setup;
  setup.coded = coded;
  setup.width = width_;
  setup.height = height_;
  setup.mayPad = true;
  setup.codedSize = headerRoom + std::size_t{width_} * height_ * 2;
  setup.raw = format_ == PixelFormat::Yuyv ? V4L2_PIX_FMT_YUYV : 0;
  if (setup.raw != 0 && encoder_.open(path, setup)) return encoder_.start();
  setup.raw = 0;
  return encoder_.open(path, setup) && encoder_.start();
}

bool JpegEncoder::setQuality(int quality) {
  if (quality == quality_) return true;
  Control range;
  M2mDevice& device = encoder_.device();
  const bool there = device.findControl(V4L2_CID_JPEG_COMPRESSION_QUALITY, range);
  const std::int64_t nearest =
      std::clamp<std::int64_t>(quality, range.minimum, std::max(range.minimum, range.maximum));
  if (!(there && device.setControl(V4L2_CID_JPEG_COMPRESSION_QUALITY, nearest)) && !anyQuality_)
    return false;
  quality_ = quality;
  return true;
}

bool JpegEncoder::write(const PackedPicture& picture, Buffer& buffer) {
  if (encoder_.inputFormat().fourcc == V4L2_PIX_FMT_YUYV) {
    writeYuyv(picture, buffer);
    return true;
  }
  toPlanar(picture);
  const unsigned stride = roundUp(width_, 2), rows = roundUp(height_, 2);
  return writeFrame(encoder_.inputFormat(),
                    planesOf<const std::uint8_t>(planar_.data(), stride, rows), width_, height_,
                    buffer);
}

/// Rows as they are; beyond the picture the last pair repeats, that of an odd width made whole.
void JpegEncoder::writeYuyv(const PackedPicture& picture, Buffer& buffer) {
  const Format& format = encoder_.inputFormat();
  const PackedRows rows(picture);
  const std::size_t rowBytes = std::size_t{format.width} * 2, used = std::size_t{width_ / 2} * 4;
  const std::size_t stride = std::max<std::size_t>(format.bytesPerLine[0], rowBytes);
  const std::size_t held = std::min<std::size_t>(format.height, buffer.capacity[0] / stride);
  const unsigned pairs = (width_ + 1) / 2;
  lines_.resize(std::size_t{pairs} * 4);
  std::uint8_t* const luma = lines_.data();
  std::uint8_t* const u = luma + std::size_t{pairs} * 2;
  std::uint8_t* const v = u + pairs;
  for (std::size_t y = 0; y < held; ++y) {
    const auto index = static_cast<unsigned>(std::min<std::size_t>(y, height_ - 1));
    std::uint8_t* const to = buffer.data[0] + y * stride;
    std::memcpy(to, rows.row(index), used);
    if (used == rowBytes) continue;
    rows.deinterleave(index, luma, u, v);
    const std::uint8_t last = luma[width_ - 1];
    const std::uint8_t pair[] = {last, u[pairs - 1], last, v[pairs - 1]};
    for (std::size_t at = used; at + sizeof pair <= rowBytes; at += sizeof pair)
      std::memcpy(to + at, pair, sizeof pair);
  }
  buffer.used[0] = std::min<std::size_t>(format.sizeImage[0], buffer.capacity[0]);
}

void JpegEncoder::toPlanar(const PackedPicture& picture) {
  const PackedRows rows(picture);
  const unsigned stride = roundUp(width_, 2), height = roundUp(height_, 2);
  planar_.resize(std::size_t{stride} * height * 3 / 2);
  const Planes to = planesOf(planar_.data(), stride, height);
  constexpr unsigned rgb = 3;
  lines_.resize(std::size_t{stride} * rgb * 2);
  std::uint8_t* const first = lines_.data();
  std::uint8_t* const second = first + std::size_t{stride} * rgb;
  const unsigned pairs = stride / 2;
  for (unsigned y = 0; y < height; y += 2) {
    const unsigned lower = std::min(y + 1, height_ - 1);
    std::uint8_t* const yUpper = to.y + std::size_t{y} * stride;
    std::uint8_t* const u = to.u + std::size_t{y / 2} * to.uvStride;
    std::uint8_t* const v = to.v + std::size_t{y / 2} * to.uvStride;
    if (picture.format == PixelFormat::Yuyv) {
      rows.deinterleave(y, yUpper, u, v);
      rows.deinterleave(lower, yUpper + stride, first, second);
      for (unsigned i = 0; i < pairs; ++i) {
        u[i] = static_cast<std::uint8_t>((u[i] + first[i] + 1) / 2);
        v[i] = static_cast<std::uint8_t>((v[i] + second[i] + 1) / 2);
      }
      continue;
    }
    expandRow(rows, picture, y, first);
    expandRow(rows, picture, lower, second);
    foldRgb(first, second, width_, yUpper, yUpper + stride, u, v);
  }
}

}  // namespace codec::kernel
