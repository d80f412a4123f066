#include "PictureWriter.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "Failure.h"

namespace tool {
namespace {

constexpr char frameMark[] = "FRAME\n";
constexpr std::size_t markBytes = sizeof frameMark - 1;

bool isDeviceOrPipe(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
}

}  // namespace

PictureWriter::Kind PictureWriter::kindFor(const std::string& output) {
  const auto endsWith = [&](const char* ending) {
    const std::size_t length = std::strlen(ending);
    return output.size() > length && output.compare(output.size() - length, length, ending) == 0;
  };
  if (endsWith(".i420") || endsWith(".yuv")) return Kind::I420;
  if (endsWith(".y4m") || output == "-" || isDeviceOrPipe(output)) return Kind::Y4m;
  throw UsageFailure("OUTPUT " + output +
                     " has an unknown ending; use .y4m or '-' for Y4M, .i420 or .yuv for planes");
}

PictureWriter::PictureWriter(OutputFile& output, Kind kind, const Header& header)
    : output_(output), kind_(kind), header_(header) {}

void PictureWriter::writeHeader(FrameSize size) {
  size_ = size;
  if (kind_ != Kind::Y4m) return;
  const auto ratio = [](const Ratio& r) {
    return std::to_string(r.num) + ":" + std::to_string(r.den);
  };
  const std::string line = "YUV4MPEG2 W" + std::to_string(size.width) + " H" +
                           std::to_string(size.height) + " F" + ratio(header_.rate) + " I" +
                           header_.order + " A" + ratio(header_.aspect) +
                           (header_.chromaCentred ? " C420jpeg" : " C420mpeg2") +
                           (header_.fullRange ? " XCOLORRANGE=FULL\n" : " XCOLORRANGE=LIMITED\n");
  output_.write(line.data(), line.size());
}

void PictureWriter::write(FrameSize size, const std::uint8_t* padded) {
  if (size_.width == 0) writeHeader(size);
  if (kind_ == Kind::Y4m && size != size_)
    throw Failure("the pictures change from " + size_.text() + " to " + size.text() +
                  ", and a Y4M file has one size; write planes instead: -o OUTPUT.i420");
  const std::size_t mark = kind_ == Kind::Y4m ? markBytes : 0;
  // One write a picture: a pipe's reader sees whole ones as early as it can.
  frame_.resize(mark + frameBytes(PixelFormat::I420, size));
  std::memcpy(frame_.data(), frameMark, mark);
  crop(size, padded, frame_.data() + mark);
  output_.write(frame_.data(), frame_.size());
}

}  // namespace tool
