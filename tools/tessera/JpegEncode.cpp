#include <tessera/CMmalJpegEncoder.h>
#include <tessera/COmxJpegEncoder.h>

#include <limits>
#include <memory>

#include "Commands.h"
#include "Failure.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "Progress.h"
#include "RawReader.h"

namespace tool {
namespace {

unsigned bitsOf(PixelFormat format) {
  return format == PixelFormat::Rgb24 ? 24 : format == PixelFormat::Rgb32 ? 32 : 16;
}

/// One of the two encoder classes, which share no interface for 16 and 24 bits.
class PictureEncoder {
 public:
  virtual ~PictureEncoder() = default;
  /// @return 1 and the JPEG's size, or 0 and the size needed (0: another failure)
  virtual int encode(std::vector<std::uint8_t>& frame, std::vector<std::uint8_t>& jpeg,
                     unsigned& size) = 0;
};

template <typename Encoder>
class ClassEncoder : public PictureEncoder {
 public:
  ClassEncoder(PixelFormat format, FrameSize size) : format_(format), size_(size) {}

  int encode(std::vector<std::uint8_t>& frame, std::vector<std::uint8_t>& jpeg,
             unsigned& size) override {
    const auto bytes = static_cast<unsigned>(frame.size());
    const auto capacity = static_cast<unsigned>(jpeg.size());
    size = 0;
    if (format_ == PixelFormat::Yuyv)
      return encoder_.EncodeYUYV(frame.data(), bytes, size_.width, size_.height, jpeg.data(),
                                 capacity, size);
    return encoder_.EncodeRGB(frame.data(), bytes, bitsOf(format_), size_.width, size_.height,
                              jpeg.data(), capacity, size);
  }

 private:
  Encoder encoder_;
  PixelFormat format_;
  FrameSize size_;
};

std::unique_ptr<PictureEncoder> makeEncoder(Via via, PixelFormat format, FrameSize size) {
  if (via == Via::Omx) return std::make_unique<ClassEncoder<COmxJpegEncoder>>(format, size);
  return std::make_unique<ClassEncoder<CMmalJpegEncoder>>(format, size);
}

/// The OpenMAX IL formats have their bytes in another order.
void toOmxPixels(PixelFormat format, std::vector<std::uint8_t>& frame) {
  if (format == PixelFormat::Rgb24) toArgb1887(frame.data(), frame.size());
  if (format == PixelFormat::Rgb32) toArgb8888(frame.data(), frame.size());
}

unsigned encodeOne(PictureEncoder& encoder, std::vector<std::uint8_t>& frame,
                   std::vector<std::uint8_t>& jpeg, const std::string& which) {
  unsigned size = 0;
  while (!encoder.encode(frame, jpeg, size)) {
    if (size <= jpeg.size())
      throw Failure("the encoder gave no JPEG for " + which +
                    "; 'tessera info' tells whether the platform works");
    jpeg.resize(size + size / 8);
  }
  return size;
}

}  // namespace

void jpegEncode(const Arguments& arguments) {
  const PixelFormat format = *arguments.format;
  const FrameSize size = *arguments.size;
  const std::uint64_t bytes = frameBytes(format, size.rounded());
  if (bytes > std::numeric_limits<std::int32_t>::max())
    throw UsageFailure("--size " + size.text() + " is too large: a frame has at most 2 GiB");

  InputFile input(arguments.input);
  if (input.isSameAs(arguments.output))
    throw UsageFailure("INPUT and OUTPUT are the same file: " + arguments.output);
  RawReader reader(input, format, size);
  OutputFile output(arguments.output);
  Progress progress(arguments);

  auto encoder = makeEncoder(arguments.via, format, size);
  std::vector<std::uint8_t> frame, jpeg(bytes / 4 + 4096);
  while (reader.next(frame, FrameSource::Layout::Padded)) {
    if (arguments.via == Via::Omx) toOmxPixels(format, frame);
    const std::string which =
        "frame " + std::to_string(progress.frames() + 1) + " of " + input.name();
    output.write(jpeg.data(), encodeOne(*encoder, frame, jpeg, which));
    progress.frame(input.fraction());
  }
  encoder.reset();  // the library's words come before the last line
  output.commit();
  progress.finish(
      {arguments.via == Via::Omx ? size.rounded() : size, input.position(), output.bytes(), 0});
}

}  // namespace tool
