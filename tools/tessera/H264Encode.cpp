#include <tessera/Basics.h>
#include <tessera/CMmalH264Encoder.h>
#include <tessera/COmxH264Encoder.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>

#include "Commands.h"
#include "Ending.h"
#include "Failure.h"
#include "FrameAhead.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "Progress.h"
#include "RangeMark.h"
#include "RawReader.h"
#include "StreamWriter.h"
#include "Y4mReader.h"

namespace tool {
namespace {

/// How long the encoder may take no frame before it counts as dead.
constexpr std::chrono::seconds inputPatience{10};
/// How long frames that are still missing at the end may take.
constexpr std::chrono::seconds outputPatience{2};

/// What goes in and how it is to be encoded.
struct Plan {
  std::unique_ptr<FrameSource> source;
  Ratio rate{30, 1};
  Ratio aspect{1, 1};
  unsigned bitrate = 0;
  Range range = Range::Limited;
  bool interlaced = false;
  FrameSize coded;  ///< the stream's size
};

/// About 0.14 bits a pixel, within what the encoders take: 4 Mb/s for 1280 x 720 at 30 a second.
unsigned fittingBitrate(FrameSize size, const Ratio& rate) {
  const double bits = 0.14 * size.width * size.height * rate.value();
  return static_cast<unsigned>(std::clamp(bits, 100e3, 25e6));
}

Plan makePlan(const Arguments& arguments, InputFile& input) {
  Plan plan;
  if (auto reader = openY4m(arguments, input)) {
    plan.rate = reader->rate().value_or(Ratio{25, 1});
    plan.aspect = reader->aspect().value_or(Ratio{1, 1});
    plan.range = reader->range().value_or(plan.range);
    plan.interlaced = reader->interlaced();
    plan.source = std::move(reader);
  } else {
    if (!arguments.size || !arguments.format) throw rawNeedsSize(input.name(), "i420|yuyv");
    plan.source = std::make_unique<RawReader>(input, *arguments.format, *arguments.size);
  }
  plan.range = arguments.range.value_or(plan.range);
  plan.rate = arguments.rate.value_or(plan.rate);
  plan.aspect = arguments.aspect.value_or(plan.aspect);
  const FrameSize size = plan.source->size();
  plan.bitrate = arguments.bitrate.value_or(fittingBitrate(size, plan.rate));
  // The OpenMAX IL class does not crop; 4:2:0 has even sizes.
  plan.coded = arguments.via == Via::Omx ? size.rounded()
                                         : FrameSize{(size.width + 1) & ~1, (size.height + 1) & ~1};
  if (frameBytes(plan.source->format(), size.rounded()) > std::numeric_limits<std::int32_t>::max())
    throw UsageFailure(size.text() + " is too large: a frame has at most 2 GiB");
  return plan;
}

class H264Encoding {
 public:
  H264Encoding(const Arguments& arguments, InputFile& input, OutputFile& output, Plan& plan,
               const AVOutputFormat* container)
      : input_(input),
        output_(output),
        source_(*plan.source),
        progress_(arguments),
        pieces_(source_.size().width, source_.size().height),
        piece_(frameBytes(PixelFormat::I420, source_.size().rounded()) + (1u << 20)),
        writer_(StreamWriter::make(
            output, container, {plan.coded, plan.rate, plan.aspect, plan.bitrate, plan.range})) {
    if (plan.range == Range::Full) rangeMark_.emplace();
    start(arguments, plan);
  }

  void run() {
    Ending ending;
    std::vector<std::uint8_t> frame;
    {
      FrameAhead frames(source_, layout_, input_);
      ending.read([&] {
        while (frames.next(frame)) {
          feed(frame);
          collect();
        }
      });
    }
    ending.check(fed_);
    collectRest(frame);
    encoder_.reset();
    writer_->finish();
    output_.commit();
    if (fed_ > progress_.frames())
      progress_.warn("the encoder's rate control dropped " +
                     std::to_string(fed_ - progress_.frames()) + " of " + std::to_string(fed_) +
                     " frames; a higher --bitrate keeps them");
    Progress::Totals totals{
        coded_, input_.position(), output_.bytes(), fed_ - progress_.frames(), {}};
    if (interlaced_) totals.notes["interlaced"] = progress_.frames();
    progress_.finish(totals);
    ending.tell(progress_.frames(), output_.name());
  }

 private:
  using Clock = std::chrono::steady_clock;

  void start(const Arguments& arguments, const Plan& plan) {
    omx_ = arguments.via == Via::Omx;
    // COmxH264Encoder codes the rounded size and takes whole rates and square pixels only.
    const FrameSize size = omx_ ? source_.size().rounded() : source_.size();
    const Ratio rate =
        omx_ ? Ratio{std::max(1u, static_cast<unsigned>(std::lround(plan.rate.value()))), 1}
             : plan.rate;
    if (omx_ && plan.aspect.num != plan.aspect.den)
      progress_.warn("--via omx leaves the aspect ratio out of the stream");
    if (plan.coded != source_.size())
      progress_.warn("the stream is " + plan.coded.text() + ": " +
                     (omx_ ? "--via omx does not crop" : "4:2:0 video has even sizes"));
    if (plan.interlaced)
      progress_.warn(input_.name() +
                     " is interlaced, and is coded as whole frames; to separate the " +
                     "fields first: ffmpeg -vf bwdif");
    interlaced_ = plan.interlaced;
    coded_ = plan.coded;
    // CMmalH264Encoder lays YUYV out itself.
    if (!omx_ && source_.format() == PixelFormat::Yuyv) layout_ = FrameSource::Layout::Packed;
    encoder_.reset(omx_ ? new COmxH264Encoder : CreateEncoderH264());
    const unsigned fourcc =
        source_.format() == PixelFormat::Yuyv ? tessera::fourccYuyv : tessera::fourccI420;
    if (!encoder_->Create(fourcc, size.width, size.height, rate.num, rate.den, plan.aspect.num,
                          plan.aspect.den, plan.bitrate))
      throw Failure("the encoder does not take " + size.text() + " at " + std::to_string(rate.num) +
                    "/" + std::to_string(rate.den) + " frames a second and " +
                    std::to_string(plan.bitrate) +
                    " bits a second; 'tessera info' tells what the platform takes");
  }

  void feed(std::vector<std::uint8_t>& frame) {
    const auto start = Clock::now();
    do {
      const CodecStatus status = encoder_->ProcessInput(
          frame.data(), static_cast<unsigned>(frame.size()), 0, static_cast<long long>(fed_));
      if (status == CodecOk) {
        ++fed_;
        return;
      }
      if (status != CodecTimeout && status != CodecNoBuffer)
        throw Failure("the encoder refused frame " + std::to_string(fed_ + 1) + " of " +
                      input_.name() + " (" + tessera::StatusText(status) + ")");
      // It may be waiting for room in its output.
      takePiece();
    } while (Clock::now() - start < inputPatience);
    throw Failure("the encoder has stopped taking frames after " + std::to_string(fed_));
  }

  /// Takes what belongs to the frames fed so far. A frame whose output does not come in time is
  /// late or was dropped; which of the two shows later.
  void collect() {
    while (pieces_.Begun() + missing_ < fed_)
      if (!takePiece()) missing_ = fed_ - pieces_.Begun();
    // A piece that may be the last is not waited for, since that could be in vain: the next frame
    // brings it. One that fills the buffer is next to never the last, and the wait is short in
    // MMAL.
    while (pieces_.MayGoOn() && pieces_.BufferSize() > 0 && !omx_)
      if (!takePiece()) break;
  }

  void collectRest(std::vector<std::uint8_t>& lastFrame) {
    takeUntil([this] { return pieces_.Begun() >= fed_; });
    if (pieces_.MayGoOn()) {
      // One frame more shows where the last one ends.
      const std::uint64_t begun = pieces_.Begun();
      feed(lastFrame);
      --fed_;
      surplus_ = true;
      takeUntil([&] { return pieces_.Begun() > begun; });
    }
    if (!frame_.empty()) writeFrame();
  }

  template <typename Done>
  void takeUntil(Done&& done) {
    auto last = Clock::now();
    while (!done() && Clock::now() - last < outputPatience)
      if (takePiece()) last = Clock::now();
  }

  /// Takes a buffer of the encoder and writes the frames that it completes.
  /// @return false when none came within the encoder's limit
  bool takePiece() {
    unsigned size = 0, flags = 0;
    const CodecStatus status =
        encoder_->ProcessOutput(piece_.data(), static_cast<unsigned>(piece_.size()), size, flags);
    if (status == CodecTimeout || status == CodecNoBuffer) return false;
    if (status != CodecOk)
      throw Failure("the encoder failed after frame " + std::to_string(progress_.frames()) + " (" +
                    tessera::StatusText(status) + ")");
    const bool first = pieces_.Add(piece_.data(), size);
    if (first && !frame_.empty()) writeFrame();
    surplusBegun_ = surplusBegun_ || (first && surplus_);
    if (surplusBegun_) return true;
    frame_.insert(frame_.end(), piece_.begin(), piece_.begin() + size);
    keyFrame_ = keyFrame_ || (flags & 1);
    if (!pieces_.MayGoOn()) writeFrame();
    return true;
  }

  void writeFrame() {
    if (rangeMark_) rangeMark_->apply(frame_);
    writer_->write(frame_, keyFrame_);
    frame_.clear();
    keyFrame_ = false;
    progress_.frame(input_.fraction());
  }

  struct EncoderRelease {
    void operator()(IH264Encoder* encoder) const { ReleaseEncoderH264(encoder); }
  };

  InputFile& input_;
  OutputFile& output_;
  FrameSource& source_;
  Progress progress_;
  tessera::EncodedFrames pieces_;
  std::vector<std::uint8_t> frame_;  ///< what has come of the one at hand
  std::vector<std::uint8_t> piece_;
  std::unique_ptr<StreamWriter> writer_;
  std::optional<RangeMark> rangeMark_;
  std::unique_ptr<IH264Encoder, EncoderRelease> encoder_;
  FrameSize coded_;
  FrameSource::Layout layout_ = FrameSource::Layout::Padded;
  std::uint64_t fed_ = 0;
  std::uint64_t missing_ = 0;
  bool keyFrame_ = false;
  bool omx_ = false;
  bool interlaced_ = false;
  bool surplus_ = false;       ///< what was fed last is not for the output
  bool surplusBegun_ = false;  ///< nor is what comes from here on
};

}  // namespace

void h264Encode(const Arguments& arguments) {
  const AVOutputFormat* container = StreamWriter::containerFor(arguments.output);
  InputFile input(arguments.input);
  if (input.isSameAs(arguments.output))
    throw UsageFailure("INPUT and OUTPUT are the same file: " + arguments.output);
  Plan plan = makePlan(arguments, input);
  OutputFile output(arguments.output);
  H264Encoding(arguments, input, output, plan, container).run();
}

}  // namespace tool
