#include "RawReader.h"

#include <string>

#include "Failure.h"
#include "Interrupt.h"

namespace tool {
namespace {

/// What the frames may be after all: other formats of the size, other sizes of the format.
std::string guesses(PixelFormat format, FrameSize size, std::uint64_t length) {
  constexpr FrameSize common[] = {
      {160, 120},  {176, 144},   {320, 180},   {320, 192},   {320, 240},   {352, 288},  {640, 360},
      {640, 480},  {800, 600},   {854, 480},   {960, 540},   {1024, 768},  {1280, 720}, {1280, 960},
      {1296, 972}, {1600, 1200}, {1640, 1232}, {1920, 1080}, {2592, 1944}, {3280, 2464}};
  std::string text;
  const auto offer = [&](PixelFormat maybe, FrameSize other) {
    const std::uint64_t bytes = frameBytes(maybe, other);
    if (length < bytes || length % bytes != 0 || text.size() > 160) return;
    const std::uint64_t frames = length / bytes;
    text += text.empty() ? "; it would hold " : ", or ";
    text += std::to_string(frames) + (frames == 1 ? " frame of " : " frames of ") + other.text() +
            " " + nameOf(maybe);
  };
  for (const PixelFormat other :
       {PixelFormat::Yuyv, PixelFormat::Rgb24, PixelFormat::Rgb32, PixelFormat::I420})
    if (other != format) offer(other, size);
  for (const FrameSize& other : common)
    if (other != size) offer(format, other);
  return text;
}

std::string bytesText(std::uint64_t bytes) {
  return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

}  // namespace

RawReader::RawReader(InputFile& input, PixelFormat format, FrameSize size)
    : input_(input), format_(format), size_(size) {
  checkLength();
}

void RawReader::checkLength() const {
  if (!input_.length()) return;
  const std::uint64_t length = *input_.length() - input_.position(),
                      frame = frameBytes(format_, size_);
  if (length % frame == 0) return;
  throw Failure(input_.name() + " has " + bytesText(length) + ", which is no whole number of " +
                size_.text() + " " + nameOf(format_) + " frames of " + bytesText(frame) + " (" +
                std::to_string(length / frame) + " and " + bytesText(length % frame) + " over)" +
                guesses(format_, size_, length));
}

bool RawReader::read(std::vector<std::uint8_t>& packed) {
  packed.resize(frameBytes(format_, size_));
  const std::size_t got = input_.read(packed.data(), packed.size());
  if (got < packed.size() && Interrupt::signal() != 0) return false;
  if (got == 0) {
    if (frames_ == 0) throw Failure(input_.name() + " is empty");
    return false;
  }
  if (got < packed.size())
    throw InputCut(input_.name() + " ends in the middle of frame " + std::to_string(frames_ + 1) +
                   ": " + bytesText(got) + " of the " + std::to_string(packed.size()) + " that a " +
                   size_.text() + " " + nameOf(format_) + " frame has; check --size and --format");
  ++frames_;
  return true;
}

}  // namespace tool
