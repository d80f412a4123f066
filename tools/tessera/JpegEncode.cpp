#include <tessera/CMmalJpegEncoder.h>
#include <tessera/COmxJpegEncoder.h>

#include <limits>
#include <memory>
#include <utility>

#include "Commands.h"
#include "Ending.h"
#include "Failure.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "Progress.h"
#include "RawReader.h"
#include "Y4mReader.h"

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

/// The pictures of a Y4M input as the encoders take them.
class YuyvOfPlanes : public FrameSource {
 public:
  explicit YuyvOfPlanes(std::unique_ptr<Y4mReader> planes) : planes_(std::move(planes)) {}
  PixelFormat format() const override { return PixelFormat::Yuyv; }
  FrameSize size() const override { return planes_->size(); }

 protected:
  bool read(std::vector<std::uint8_t>& packed) override {
    if (!planes_->next(frame_, Layout::Packed)) return false;
    packed.resize(frameBytes(PixelFormat::Yuyv, size()));
    toYuyv(size(), frame_.data(), packed.data());
    return true;
  }

 private:
  std::unique_ptr<Y4mReader> planes_;
  std::vector<std::uint8_t> frame_;
};

struct Plan {
  std::unique_ptr<FrameSource> source;
  Range range = Range::Limited;
};

void checkSize(PixelFormat format, FrameSize size) {
  if (frameBytes(format, size.rounded()) > std::numeric_limits<std::int32_t>::max())
    throw UsageFailure(size.text() + " is too large: a frame has at most 2 GiB");
}

Plan makePlan(const Arguments& arguments, InputFile& input) {
  Plan plan;
  if (auto reader = openY4m(arguments, input)) {
    checkSize(PixelFormat::Yuyv, reader->size());
    plan.range = reader->range().value_or(plan.range);
    plan.source = std::make_unique<YuyvOfPlanes>(std::move(reader));
  } else {
    if (!arguments.size || !arguments.format)
      throw rawNeedsSize(input.name(), "yuyv|rgb16|rgb24|rgb32");
    checkSize(*arguments.format, *arguments.size);
    plan.source = std::make_unique<RawReader>(input, *arguments.format, *arguments.size);
  }
  plan.range = arguments.range.value_or(plan.range);
  return plan;
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
  InputFile input(arguments.input);
  if (input.isSameAs(arguments.output))
    throw UsageFailure("INPUT and OUTPUT are the same file: " + arguments.output);
  const Plan plan = makePlan(arguments, input);
  FrameSource& source = *plan.source;
  const FrameSize size = source.size();
  OutputFile output(arguments.output);
  Progress progress(arguments);
  if (isBeyondDecoders(size))
    progress.warn("jpeg-decode will not take these pictures back: " + decoderLimits());

  auto encoder = makeEncoder(arguments.via, source.format(), size);
  std::vector<std::uint8_t> frame, jpeg(frameBytes(source.format(), size.rounded()) / 4 + 4096);
  Ending ending;
  ending.read([&] {
    while (source.next(frame, FrameSource::Layout::Padded)) {
      if (arguments.via == Via::Omx) toOmxPixels(source.format(), frame);
      if (source.format() == PixelFormat::Yuyv && plan.range == Range::Limited)
        toFullRange(frame.data(), frame.size());
      const std::string which =
          "frame " + std::to_string(progress.frames() + 1) + " of " + input.name();
      output.write(jpeg.data(), encodeOne(*encoder, frame, jpeg, which));
      progress.frame(input.fraction());
    }
  });
  ending.check(progress.frames());
  encoder.reset();
  output.commit();
  progress.finish(
      {arguments.via == Via::Omx ? size.rounded() : size, input.position(), output.bytes(), 0, {}});
  ending.tell(progress.frames(), output.name());
}

}  // namespace tool
