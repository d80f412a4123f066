#include "support/Drivers.h"

#include <tessera_platform/control.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>

#include "support/Calls.h"
#include "support/Capture.h"

namespace support {
namespace {

constexpr int answerLimitMs = 10000;
constexpr unsigned room = 20000;  ///< for any output

bool untouched(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == poison; });
}

Outcome silent(const char* what) {
  return Outcome::wrong(std::string(what) + " failed in silence");
}

bool wasPrinted(const std::string& text) {
  return printedText().find(text) != std::string::npos;
}

/// Frame i of a driver's size. The first are painted once: a sweep asks for thousands.
Image sceneOf(Size size, int i) {
  static const auto painted = [] {
    std::map<std::pair<int, int>, Image> all;
    for (const Size& s : sizes)
      for (int t = 0; t < 3; ++t) all[{s.width, t}] = scene(s.width, s.height, t);
    return all;
  }();
  const auto found = painted.find({size.width, i});
  return found != painted.end() ? found->second : scene(size.width, size.height, i);
}

/// One call of the library: a refused one prints at least one line, and each has its limit.
class Call {
 public:
  bool printedLines() const { return printedText().size() > before_; }
  int tookMs() const {
    return static_cast<int>((Clock::now() - start_) / std::chrono::milliseconds(1));
  }
  /// The outcome, unless the call took longer than it may.
  Outcome within(int limitMs, Outcome outcome) const {
    if (tookMs() <= limitMs) return outcome;
    return Outcome::wrong("a call took " + std::to_string(tookMs()) + " ms");
  }
  /// Of a Create.
  Outcome created(bool good, int limitMs) const {
    if (good) return within(limitMs, {});
    return printedLines() ? within(limitMs, Outcome::refused()) : silent("Create");
  }

 private:
  using Clock = std::chrono::steady_clock;
  const std::size_t before_ = printedText().size();
  const Clock::time_point start_ = Clock::now();
};

class JpegDriver : public Driver {
 public:
  explicit JpegDriver(const JpegClass& kind) : kind_(kind) {}

  Outcome make() override {
    encoder_.emplace(kind_);
    return {};
  }
  Outcome resize(int which) override {
    size_ = sizes[which];
    return {};
  }
  Outcome frame(int i) override {
    const Image picture = sceneOf(size_, i);
    const Call call;
    const Encoded out = encoder_->encode(picture, 0, room);
    if (out.result == 0) {
      if (!call.printedLines()) return silent("the encode");
      if (out.size != poisonedNumber) return Outcome::wrong("a failed encode told a size");
      // Where the component goes back to Idle after the JPEG, that step may fail alone.
      if (kind_.mmal && !untouched(out.jpeg))
        return Outcome::wrong("a failed encode wrote its output");
      return call.within(answerLimitMs, Outcome::refused());
    }
    if (quality(out.jpeg, encoder_->expected(picture)) < 30)
      return Outcome::wrong("no JPEG of the picture");
    return call.within(answerLimitMs, {});
  }
  Outcome goOn(bool) override {
    const bool released = !kind_.mmal && asksForRelease();
    const Outcome outcome = frame(0);
    return released && outcome.problem.empty() ? Outcome{} : outcome;
  }
  void launch() override { encoder_->encode(sceneOf(sizes[0], 0), 0, 16); }

 private:
  /// Whether a line told of a missing component or, unlike those about events, of a refused call.
  static bool asksForRelease() {
    std::istringstream text(printedText());
    for (std::string line; std::getline(text, line);)
      if (line.find("encoder handle is empty") != std::string::npos ||
          (line.find(" - 0x8000") != std::string::npos && line.find("OmxEventsHandler") != 0))
        return true;
    return false;
  }

  const JpegClass& kind_;
  Size size_ = sizes[0];
  std::optional<JpegEncoder> encoder_;
};

class PoolDriver : public Driver {
 public:
  Outcome make() override {
    pool_.reset(GetDecoderPool());
    return {};
  }
  Outcome resize(int which) override {
    size_ = sizes[which];
    return {};
  }
  Outcome frame(int i) override {
    const Bytes jpeg = encodeJpeg(sceneOf(size_, i), Sampling::Yuv420, 80);
    Size seen{0, 0};
    const Call call;
    const unsigned char* const data = decode(jpeg, seen);
    if (data == nullptr)
      return call.printedLines() ? call.within(answerLimitMs, Outcome::refused())
                                 : silent("the decode");
    if (seen.width != size_.width || seen.height != size_.height)
      return Outcome::wrong("a picture of the wrong size");
    if (unpadded(data, seen.width, seen.height).y != decodeJpeg(jpeg).y)
      return Outcome::wrong("a wrong picture");
    return call.within(answerLimitMs, {});
  }
  Outcome goOn(bool) override {
    const Outcome outcome = frame(0);
    return wasPrinted("the pool's setup failed\n") ? Outcome{} : outcome;
  }
  void launch() override {
    Size size = sizes[0];
    decode(Bytes(64), size);
  }

 private:
  const unsigned char* decode(Bytes jpeg, Size& size) {
    return pool_->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), length(jpeg), size.width,
                             size.height);
  }

  Size size_ = sizes[0];
  std::unique_ptr<DecoderPool, int (*)(DecoderPool*)> pool_{nullptr, ReleaseDecoderPool};
};

/// How long an operation that ends with CodecTimeout waits, how long any other may, and whether the
/// time-out has no line.
struct Wait {
  int leastMs, mostMs;
  bool silent = false;
};
constexpr Wait mmalInput{1000, 1000}, mmalOutput{100, 100}, decoderOutput{100, 100, true},
    ilAnswer{1000, answerLimitMs};

/// What a status owes the caller: its time, and a line where the result does not say it all.
Outcome judgeStatus(CodecStatus status, const Call& call, const Wait& wait) {
  static constexpr int known[] = {CodecNoBuffer,       CodecSendFailed,    CodecInvalidArgument,
                                  CodecInvalidState,   CodecWaitFailed,    CodecTimeout,
                                  CodecBufferTooSmall, CodecStreamMismatch};
  if (status == CodecOk) return call.within(wait.mostMs, {});
  if (std::find(std::begin(known), std::end(known), status) == std::end(known))
    return Outcome::wrong("a status that nobody knows");
  if (status == CodecTimeout && call.tookMs() < wait.leastMs)
    return Outcome::wrong("gave up after " + std::to_string(call.tookMs()) + " ms");
  const bool quiet = status == CodecNoBuffer || status == CodecBufferTooSmall ||
                     (status == CodecTimeout && wait.silent);
  return quiet || call.printedLines() ? call.within(wait.mostMs, Outcome::refused())
                                      : silent("the operation");
}

class H264EncoderDriver : public Driver {
 public:
  explicit H264EncoderDriver(const H264Class& kind) : kind_(kind) {}

  Outcome make() override {
    encoder_.emplace(kind_);
    return create();
  }
  Outcome resize(int which) override {
    size_ = sizes[which];
    return create();
  }
  Outcome frame(int i) override {
    const Outcome fed = feed(i);
    return fed.good ? collect() : fed;
  }
  Outcome goOn(bool anew) override {
    if ((anew || !created_) && !create().good)
      return !everCreated_ && wasPrinted(kind_.mmal ? "failed to create mmal encoder component"
                                                    : "invalid state of encoder object.\n")
                 ? Outcome{}
                 : Outcome::refused();
    for (int i = 0; kind_.mmal && i < 10; ++i) encoder_->take(room);
    startStream();
    return frame(1);
  }
  void launch() override { feed(0); }

 private:
  void startStream() {
    stream_.clear();
    whole_ = true;
    fed_ = 0;
  }
  Outcome create() {
    startStream();
    const Call call;
    // At one frame a second each is a key frame, whose picture tells of nothing that went before.
    created_ = encoder_->create({yuyv, size_.width, size_.height, 1, 1, 1, 1, 1000000});
    everCreated_ = everCreated_ || created_;
    whole_ = created_;
    return call.created(created_, kind_.mmal ? 0 : answerLimitMs);
  }
  Outcome feed(int i) {
    last_ = i;
    const Call call;
    const CodecStatus status = encoder_->feed(sceneOf(size_, i));
    fed_ += status == CodecOk;
    return judgeStatus(status, call, kind_.mmal ? mmalInput : ilAnswer);
  }
  /// Takes buffers until one holds a slice.
  Outcome collect() {
    for (int misses = 0; misses < 2;) {
      const Call call;
      const Output out = encoder_->take(room);
      if (out.status != CodecOk) {
        whole_ = false;
        if (out.flags != 0 || out.size != poisonedNumber || !untouched(out.data))
          return Outcome::wrong("a failed ProcessOutput wrote its outputs");
        const Outcome judged = judgeStatus(out.status, call, kind_.mmal ? mmalOutput : ilAnswer);
        if (!judged.problem.empty()) return judged;
        ++misses;
        continue;
      }
      // An empty buffer, or an event of the component handed out like data.
      whole_ = whole_ && out.size > 4 && out.data[0] == 0 && out.data[1] == 0;
      stream_.insert(stream_.end(), out.data.begin(), out.data.end());
      if (holdsSlice(out.data)) return judge();
    }
    return Outcome::refused();
  }
  Outcome judge() const {
    if (!whole_ || withheldParameterSets()) return {};
    const std::vector<Yuv> seen = decodeH264(stream_).pictures;
    if (seen.size() != static_cast<std::size_t>(fed_))
      return Outcome::wrong("frames in and pictures out differ in number");
    const Size expected = kind_.mmal ? size_ : Size{round32(size_.width), round16(size_.height)};
    if (seen.back().width != expected.width || seen.back().height != expected.height)
      return Outcome::wrong("a stream of the wrong size");
    if (worstPsnr({seen.back()}, {toYuv(sceneOf(size_, last_))}) < 30)
      return Outcome::wrong("another picture");
    return {};
  }
  /// Whether the platform kept the parameter sets to itself, which no class can know.
  bool withheldParameterSets() const {
    constexpr int sequenceParameterSet = 7;
    const std::vector<int> types = nalTypes(stream_);
    return tessera_platform::faultsHit() > 0 &&
           (types.empty() || types.front() != sequenceParameterSet);
  }

  const H264Class& kind_;
  Size size_ = sizes[0];
  std::optional<H264Encoder> encoder_;
  Bytes stream_;
  bool created_ = false, everCreated_ = false;
  bool whole_ = true;  ///< nothing was refused since Create, so the stream has no holes
  int fed_ = 0;
  int last_ = 0;  ///< frame fed
};

class H264DecoderDriver : public Driver {
 public:
  Outcome make() override {
    IH264Decoder* made = nullptr;
    // Silent where the platform makes nothing and calls it a success.
    if (CreateH264Decoder(&made) == 0)
      return made == nullptr ? Outcome::refused()
                             : Outcome::wrong("a failed creation stored something");
    decoder_.reset(made);
    return create();
  }
  Outcome resize(int which) override {
    which_ = which;
    return decoder_ == nullptr ? Outcome::refused() : create();
  }
  Outcome frame(int i) override {
    if (decoder_ == nullptr) return Outcome::refused();
    const Outcome fed = feed(i);
    return fed.good ? collect(i) : fed;
  }
  void launch() override {
    if (decoder_ != nullptr) feed(0);
  }
  /// From the next key frame on.
  Outcome goOn(bool anew) override {
    if (decoder_ == nullptr && !make().good) return Outcome::refused();
    if ((anew || !created_) && !create().good) return Outcome::refused();
    for (int i = 0; i < 10; ++i) take(*decoder_, room);
    whole_ = true;
    return frame(2);
  }

 private:
  Outcome create() {
    const Call call;
    created_ = decoder_->Create(sizes[which_].width, sizes[which_].height, 0, nullptr);
    whole_ = created_;
    return call.created(created_, 0);
  }
  Outcome feed(int i) {
    const Call call;
    const CodecStatus status = support::feed(*decoder_, i, which_);
    whole_ = whole_ && status == CodecOk;
    return judgeStatus(status, call, mmalInput);
  }
  Outcome collect(int i) {
    for (int misses = 0; misses < 3; ++misses) {
      const Call call;
      const Picture out = take(*decoder_, room);
      if (out.status == CodecOk) return judge(i, out);
      if (!out.untold() || out.size != poisonedNumber || !untouched(out.data))
        return Outcome::wrong("a failed ProcessOutput wrote its outputs");
      created_ = created_ && out.status != CodecInvalidState;
      const Outcome judged = judgeStatus(out.status, call, decoderOutput);
      if (!judged.problem.empty()) return judged;
    }
    whole_ = false;
    return Outcome::refused();
  }
  Outcome judge(int i, const Picture& out) {
    const Size size = sizes[which_];
    const int bytes = round32(size.width) * round16(size.height) * 3 / 2;
    // An event of the component, handed out like a picture, or an empty one.
    if (out.size != static_cast<unsigned>(bytes)) whole_ = false;
    if (!whole_) return {};
    if (out.timestamp != static_cast<unsigned long long>(i) * 40 + 40)
      return Outcome::wrong("a picture with another one's timestamp");
    if (unpadded(out.data.data(), size.width, size.height).y !=
        clip(which_).pictures[static_cast<std::size_t>(i)].y)
      return Outcome::wrong("a wrong picture");
    return {};
  }

  int which_ = 0;
  bool created_ = false;
  bool whole_ = true;  ///< nothing was refused since Create, so every picture has its references
  std::unique_ptr<IH264Decoder, int (*)(IH264Decoder*)> decoder_{nullptr, FreeH264Decoder};
};

template <typename Made, typename... Kind>
DriverClass classOf(const char* name, const Kind&... kind) {
  return {name, [&kind...] { return std::make_unique<Made>(kind...); }};
}

}  // namespace

const std::vector<DriverClass>& driverClasses() {
  static const std::vector<DriverClass> classes{
      classOf<JpegDriver>("CMmalJpegEncoder", mmalJpeg()),
      classOf<JpegDriver>("COmxJpegEncoder", omxJpeg()),
      classOf<PoolDriver>("DecoderPool"),
      classOf<H264EncoderDriver>("CMmalH264Encoder", mmalH264()),
      classOf<H264EncoderDriver>("COmxH264Encoder", omxH264()),
      classOf<H264DecoderDriver>("CMmalH264Decoder")};
  return classes;
}

const DriverClass& driverClass(const std::string& name) {
  const auto& all = driverClasses();
  return *std::find_if(all.begin(), all.end(), [&](const auto& each) { return each.name == name; });
}

}  // namespace support
