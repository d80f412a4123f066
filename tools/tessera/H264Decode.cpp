#include <tessera/Basics.h>
#include <tessera/IH264Decoder.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Commands.h"
#include "Ending.h"
#include "Failure.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "PictureWriter.h"
#include "Progress.h"
#include "StreamReader.h"

namespace tool {
namespace {

/// Pictures that may be on their way beyond those held back for their order. The decoder has at
/// least four output buffers: while these do not run out it never stops to take input, however
/// slowly the pictures are written.
constexpr std::int64_t pipelineDepth = 3;
/// Drains without a picture, of 100 ms each, after which pictures that are missing will not come.
constexpr int drainPatience = 5;
/// How long the decoder may neither take nor give anything before it counts as dead.
constexpr std::chrono::seconds inputPatience{10};

struct DecoderRelease {
  void operator()(IH264Decoder* decoder) const { FreeH264Decoder(decoder); }
};
using Decoder = std::unique_ptr<IH264Decoder, DecoderRelease>;

Decoder makeDecoder() {
  IH264Decoder* decoder = nullptr;
  if (!CreateH264Decoder(&decoder))
    throw Failure("the platform has no H.264 decoder; 'tessera info' tells what it has");
  return Decoder(decoder);
}

/// Stopped is how the feeding thread leaves when the draining one has failed.
struct Stopped {};

/// One thread feeds the decoder, the caller's drains it and writes.
class H264Decoding {
 public:
  H264Decoding(const Arguments& arguments, InputFile& input, StreamReader& reader,
               PictureWriter& writer)
      : input_(input),
        reader_(reader),
        writer_(writer),
        progress_(arguments),
        decoder_(makeDecoder()),
        heldBack_(reader.info().reorder) {}

  ~H264Decoding() {
    stop();
    if (feeder_.joinable()) feeder_.join();
  }

  void run() {
    feeder_ = std::thread([this] { feedAll(); });
    while (waitForStream()) drain();
    feeder_.join();
    decoder_.reset();
    Ending().check(progress_.frames());
    if (pictures_ == 0)
      throw Failure(reader_.cut().empty() ? "nothing in " + input_.name() + " can be decoded"
                                          : reader_.cut());
  }

  void finish(const OutputFile& output) {
    const auto lost = static_cast<std::uint64_t>(std::max<std::int64_t>(0, lost_));
    if (lost > leadFields_ / 2)
      progress_.warn(std::to_string(lost - leadFields_ / 2) + " of the pictures in " +
                     input_.name() + " could not be decoded");
    Progress::Totals totals{size_, input_.position(), output.bytes(), lost + skipped_, {}};
    const int rotation = reader_.info().rotation;
    const std::pair<std::string, std::uint64_t> notes[] = {
        {"before the first key frame", leadFields_ / 2 + skipped_},
        {"damaged", damaged_},
        {"missing", missing_},
        {"interlaced", interlacedFields_ / 2},
        {"off the constant rate", offRate()},
        {"to be turned by " + std::to_string(rotation) + " degrees",
         rotation != 0 ? progress_.frames() : 0}};
    for (const auto& [what, count] : notes)
      if (count > 0) totals.notes[what] = count;
    progress_.finish(totals);
    Ending ending;
    ending.read([this] {
      if (!reader_.cut().empty()) throw InputCut(reader_.cut());
    });
    ending.tell(progress_.frames(), output.name());
  }

 private:
  using Clock = std::chrono::steady_clock;

  // ---- the feeding thread

  void feedAll() {
    try {
      AccessUnit unit;
      FrameSize fed;
      while (reader_.next(unit)) {
        note(unit);
        if (unit.picture.width == 0) continue;  // parameter sets are still to come
        if (unit.picture != fed) {
          if (fed.width > 0) endSequence(fed);
          fed = unit.picture;
          requestSetup(fed, unit.order);
        }
        waitForRoom();
        feed(unit.data, unit.size, fed, unit.decodeOnly ? 1 : 0, unit.milliseconds);
        std::lock_guard<std::mutex> lock(mutex_);
        if (!unit.decodeOnly) fieldsIn_ += unit.fields;
        if (unit.fields == 0 && tessera::HasPicture(unit.data, unit.size)) countable_ = false;
      }
      if (fed.width > 0) endSequence(fed);
    } catch (const Stopped&) {
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      feedFailure_ = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    feedEnded_ = true;
    changed_.notify_all();
  }

  /// Counts what the last line is to tell of.
  void note(const AccessUnit& unit) {
    started_ = started_ || unit.keyFrame;
    const auto fields = static_cast<std::uint64_t>(unit.fields);
    if (unit.picture.width == 0)
      skipped_ += tessera::HasPicture(unit.data, unit.size);
    else if (!started_)
      leadFields_ += fields;
    if (unit.order != 'p') interlacedFields_ += fields;
    if (unit.damaged) ++damaged_;
    missing_ += unit.missing;
    if (unit.milliseconds > 0 && unit.fields == 2) times_.push_back(unit.milliseconds);
  }

  /// Pictures that do not come a frame's time after the one before. Times are whole milliseconds.
  std::uint64_t offRate() {
    std::sort(times_.begin(), times_.end());
    const double expected = 1000 / reader_.info().rate.value();
    std::uint64_t count = 0;
    for (std::size_t i = 1; i < times_.size(); ++i) {
      const auto distance = static_cast<double>(times_[i] - times_[i - 1]);
      if (std::abs(distance - expected) > std::max(2.0, expected / 10)) ++count;
    }
    return count;
  }

  /// In pieces that the decoder takes as a whole or, when it times out, not at all.
  void feed(std::uint8_t* data, std::size_t size, FrameSize picture, unsigned flags,
            std::uint64_t milliseconds) {
    const std::size_t most = tessera::DecoderBufferSize(picture.width, picture.height);
    for (; size > most; data += most, size -= most)
      feedPiece(data, most, picture, flags, milliseconds);
    feedPiece(data, size, picture, flags, milliseconds);
  }

  void feedPiece(std::uint8_t* data, std::size_t size, FrameSize picture, unsigned flags,
                 std::uint64_t milliseconds) {
    const auto start = Clock::now();
    for (;;) {
      const CodecStatus status = decoder_->ProcessInput(
          data, static_cast<unsigned>(size), picture.width, picture.height, flags, milliseconds);
      if (status == CodecOk) return;
      if (status != CodecTimeout)
        throw Failure("the decoder refused data of " + input_.name() + " (" +
                      tessera::StatusText(status) + ")");
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopped_) throw Stopped();
      // Where the writing waits for a slow reader the decoder has to wait too.
      if (Clock::now() - start > inputPatience && emptyDrains_ > drainPatience)
        throw Failure("the decoder has stopped taking data");
    }
  }

  /// Makes the decoder hand out what it holds for reordering. It has taken that in once it takes
  /// another input; a set-up leaves one input more that it takes without having had the one before.
  void endSequence(FrameSize picture) {
    auto end = tessera::endOfSequence;
    for (int i = 0; i < setUps_ + 1; ++i) feed(end.data(), end.size(), picture, 0, 0);
    std::lock_guard<std::mutex> lock(mutex_);
    sequenceEnded_ = true;
    emptyDrains_ = 0;
  }

  void requestSetup(FrameSize size, char order) {
    std::unique_lock<std::mutex> lock(mutex_);
    wanted_ = size;
    if (setUps_ == 0) writer_.setOrder(order);
    changed_.notify_all();
    changed_.wait(lock, [this] { return !wanted_ || stopped_; });
    if (stopped_) throw Stopped();
  }

  void waitForRoom() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return lag() <= heldBack_ + pipelineDepth || stopped_; });
    if (stopped_) throw Stopped();
  }

  // ---- the draining thread

  /// Waits for a stream to decode. @return false when there is no more
  bool waitForStream() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return wanted_ || feedEnded_; });
    if (feedFailure_) std::rethrow_exception(feedFailure_);
    if (!wanted_) return false;
    setUp(*wanted_);
    wanted_.reset();
    changed_.notify_all();
    return true;
  }

  void setUp(FrameSize size) {
    const std::uint64_t bytes = frameBytes(PixelFormat::I420, size.rounded());
    if (size.width < 1 || size.height < 1 || bytes > std::numeric_limits<std::int32_t>::max())
      throw Failure(input_.name() + ": no picture size can be made out; is the stream complete?");
    if (!decoder_->Create(size.width, size.height, 0, nullptr))
      throw Failure("the decoder does not take " + size.text() +
                    "; 'tessera info' tells whether the platform works");
    size_ = size;
    picture_.resize(bytes);
    ++setUps_;
    sequenceEnded_ = false;
    emptyDrains_ = 0;
  }

  /// Writes pictures until the stream has ended and all have come.
  void drain() {
    while (!allCame()) {
      unsigned size = 0, width = 0, height = 0;
      unsigned long long milliseconds = 0;
      const CodecStatus status =
          decoder_->ProcessOutput(picture_.data(), static_cast<unsigned>(picture_.size()), size,
                                  width, height, milliseconds);
      if (status == CodecOk && size == picture_.size()) {
        writer_.write(size_, picture_.data());
        progress_.frame(reader_.fraction());
        std::lock_guard<std::mutex> lock(mutex_);
        ++pictures_;
        emptyDrains_ = 0;
        changed_.notify_all();
      } else if (status == CodecTimeout || status == CodecNoBuffer) {
        if (nothingCame()) return;
      } else {
        throw Failure("the pictures in " + input_.name() + " are not " + size_.text() +
                      " as its parameter sets say (" + std::to_string(size) + " bytes, " +
                      tessera::StatusText(status) + ")");
      }
    }
  }

  bool allCame() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sequenceEnded_ && lag() == 0 && countable_;
  }

  /// @return true when nothing will come any more
  bool nothingCame() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (feedFailure_) return true;
    ++emptyDrains_;
    if (!sequenceEnded_) {
      // What has not come by now is held back, or damaged and lost: it leaves room for more.
      heldBack_ = std::max(heldBack_, lag());
      changed_.notify_all();
      return feedEnded_;
    }
    if (lag() > 0 && emptyDrains_ < drainPatience) return false;
    lost_ += lag();
    return true;
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    changed_.notify_all();
    input_.cancel();
  }

  /// Pictures that went in and may still come out.
  std::int64_t lag() const { return fieldsIn_ / 2 - pictures_ - lost_; }

  InputFile& input_;
  StreamReader& reader_;
  PictureWriter& writer_;
  Progress progress_;
  Decoder decoder_;
  FrameSize size_;
  std::vector<std::uint8_t> picture_;
  std::thread feeder_;

  std::mutex mutex_;  ///< guards all below
  std::condition_variable changed_;
  std::optional<FrameSize> wanted_;  ///< a set-up that the feeding thread waits for
  std::int64_t fieldsIn_ = 0;
  std::int64_t pictures_ = 0;  ///< out
  std::int64_t lost_ = 0;      ///< that did not come by the end of their sequence
  std::int64_t heldBack_;      ///< pictures that come out only after more input
  int setUps_ = 0;

  // What the feeding thread counts and the other one reads once that has ended.
  bool started_ = false;          ///< a key frame has come
  std::uint64_t skipped_ = 0;     ///< not fed, since their size is not known
  std::uint64_t leadFields_ = 0;  ///< fed, before the first key frame
  std::uint64_t interlacedFields_ = 0;
  std::uint64_t damaged_ = 0;
  std::uint64_t missing_ = 0;
  std::vector<std::uint64_t> times_;
  int emptyDrains_ = 0;  ///< in a row
  bool sequenceEnded_ = false;
  bool countable_ = true;  ///< fieldsIn_ has all pictures in it
  bool feedEnded_ = false;
  bool stopped_ = false;
  std::exception_ptr feedFailure_;
};

}  // namespace

void h264Decode(const Arguments& arguments) {
  const PictureWriter::Kind kind = PictureWriter::kindFor(arguments.output);
  InputFile input(arguments.input);
  if (input.isSameAs(arguments.output))
    throw UsageFailure("INPUT and OUTPUT are the same file: " + arguments.output);
  const std::unique_ptr<StreamReader> reader = StreamReader::open(input, arguments.lowDelay);
  OutputFile output(arguments.output);
  PictureWriter::Header header;
  header.rate = reader->info().rate;
  header.aspect = reader->info().aspect;
  header.fullRange = reader->info().fullRange;
  PictureWriter writer(output, kind, header);

  H264Decoding decoding(arguments, input, *reader, writer);
  decoding.run();
  output.commit();
  decoding.finish(output);
}

}  // namespace tool
