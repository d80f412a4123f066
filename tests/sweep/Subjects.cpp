#include <tessera/tessera.h>
#include <tessera_platform/control.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <sstream>
#include <utility>

#include "Streams.h"
#include "Subject.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace sweep {
namespace {

using support::Bytes;

struct Size {
  int width, height;
};
constexpr Size sizes[] = {{64, 48}, {98, 34}};
constexpr std::uint8_t poison = 0xA5;
constexpr unsigned poisonedNumber = 0xDEADBEEF;
constexpr int answerLimitMs = 10000;

bool untouched(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == poison; });
}

Outcome silent(const char* what) {
  return Outcome::wrong(std::string(what) + " failed in silence");
}

bool wasPrinted(const std::string& text) {
  return printedText().find(text) != std::string::npos;
}

/// One call of the library: a refused one prints at least one line, and each has its limit.
class Call {
 public:
  bool printedLines() const { return printed() > before_; }
  int tookMs() const {
    return static_cast<int>((Clock::now() - start_) / std::chrono::milliseconds(1));
  }
  /// The outcome, unless the call took longer than it may.
  Outcome within(int limitMs, Outcome outcome) const {
    if (tookMs() <= limitMs) return outcome;
    return Outcome::wrong("a call took " + std::to_string(tookMs()) + " ms");
  }

 private:
  using Clock = std::chrono::steady_clock;
  const std::size_t before_ = printed();
  const Clock::time_point start_ = Clock::now();
};

/// Whether a luma plane shows the scene in its upper left corner.
bool shows(const Bytes& luma, int stride, const support::Image& scene) {
  Bytes seen;
  for (int y = 0; y < scene.height; ++y) {
    const auto row = luma.begin() + static_cast<std::ptrdiff_t>(y) * stride;
    seen.insert(seen.end(), row, row + scene.width);
  }
  return support::psnr(seen, support::toYuv(scene).y) >= 30;
}

Outcome judgeJpeg(const Bytes& jpeg, const support::Image& scene, Size expected) {
  const support::JpegPicture picture = support::decodeJpeg(jpeg);
  if (!picture.ok) return Outcome::wrong("not a JPEG: " + picture.error);
  if (picture.width != expected.width || picture.height != expected.height)
    return Outcome::wrong("a JPEG of the wrong size");
  return shows(picture.y, picture.width, scene) ? Outcome{}
                                                : Outcome::wrong("a JPEG of another picture");
}

class JpegEncoderSubject : public Subject {
 public:
  using Make = IJPEGEncoder* (*)();
  JpegEncoderSubject(Make maker, bool mmal) : make_(maker), mmal_(mmal) {}
  ~JpegEncoderSubject() override { destroy(); }

  Outcome make() override {
    encoder_ = make_();
    return {};
  }
  Outcome resize() override {
    size_ = sizes[1];
    return {};
  }
  Outcome frame(int i) override {
    const support::Image scene = support::scene(size_.width, size_.height, i);
    const Size rounded{support::round32(size_.width), support::round16(size_.height)};
    Bytes raw = support::toYuyv(scene, rounded.width, rounded.height);
    Bytes jpeg(20000, poison);
    unsigned size = poisonedNumber;
    const Call call;
    if (encoder_->EncodeYUYV(raw.data(), static_cast<unsigned>(raw.size()), size_.width,
                             size_.height, jpeg.data(), static_cast<unsigned>(jpeg.size()),
                             size) == 0) {
      if (!call.printedLines()) return silent("the encode");
      if (size != poisonedNumber) return Outcome::wrong("a failed encode told a size");
      // Where the component goes back to Idle after the JPEG, that step may fail alone.
      if (mmal_ && !untouched(jpeg)) return Outcome::wrong("a failed encode wrote its output");
      return call.within(answerLimitMs, Outcome::refused());
    }
    jpeg.resize(size);
    return call.within(answerLimitMs, judgeJpeg(jpeg, scene, mmal_ ? size_ : rounded));
  }
  Outcome goOn(bool) override {
    const bool released = !mmal_ && asksForRelease();
    const Outcome outcome = frame(0);
    return released && outcome.problem.empty() ? Outcome{} : outcome;
  }
  void launch() override {
    Bytes raw(64 * 48 * 2), jpeg(16);
    unsigned size = 0;
    encoder_->EncodeYUYV(raw.data(), static_cast<unsigned>(raw.size()), 64, 48, jpeg.data(), 16,
                         size);
  }
  void destroy() override { ReleaseEncoderJPEG(std::exchange(encoder_, nullptr)); }

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

  Make make_;
  bool mmal_;  ///< crops the component's rounded size back to the picture's
  Size size_ = sizes[0];
  IJPEGEncoder* encoder_ = nullptr;
};

class DecoderPoolSubject : public Subject {
 public:
  ~DecoderPoolSubject() override { destroy(); }

  Outcome make() override {
    pool_ = GetDecoderPool();
    return {};
  }
  Outcome resize() override {
    size_ = sizes[1];
    return {};
  }
  Outcome frame(int i) override {
    const support::Image scene = support::scene(size_.width, size_.height, i);
    Bytes jpeg = support::encodeJpeg(scene, support::Sampling::Yuv420, 80);
    int width = 0, height = 0;
    const Call call;
    const unsigned char* const data = pool_->DecodeJpeg(
        reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned>(jpeg.size()), width, height);
    if (data == nullptr)
      return call.printedLines() ? call.within(answerLimitMs, Outcome::refused())
                                 : silent("the decode");
    if (width != size_.width || height != size_.height)
      return Outcome::wrong("a picture of the wrong size");
    if (support::unpadded(data, width, height).y != support::decodeJpeg(jpeg).y)
      return Outcome::wrong("a wrong picture");
    return call.within(answerLimitMs, {});
  }
  Outcome goOn(bool) override {
    const Outcome outcome = frame(0);
    return wasPrinted("the pool's setup failed\n") ? Outcome{} : outcome;
  }
  void launch() override {
    char rubbish[64] = {};
    int width = 64, height = 48;
    pool_->DecodeJpeg(rubbish, sizeof rubbish, width, height);
  }
  void destroy() override { ReleaseDecoderPool(std::exchange(pool_, nullptr)); }

 private:
  Size size_ = sizes[0];
  DecoderPool* pool_ = nullptr;
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

std::vector<int> nalTypes(const Bytes& data) {
  std::vector<int> types;
  for (const std::size_t start : support::nalStarts(data))
    if (start + 5 <= data.size())
      types.push_back(data[start + (data[start + 2] == 1 ? 3 : 4)] & 31);
  return types;
}

bool holdsSlice(const Bytes& data) {
  const std::vector<int> types = nalTypes(data);
  return std::any_of(types.begin(), types.end(), [](int type) { return type == 1 || type == 5; });
}

/// Whether the platform kept the parameter sets to itself, which no class can know.
bool withheldParameterSets(const Bytes& stream) {
  constexpr int sequenceParameterSet = 7;
  const std::vector<int> types = nalTypes(stream);
  return tessera_platform::faultsHit() > 0 &&
         (types.empty() || types.front() != sequenceParameterSet);
}

class H264EncoderSubject : public Subject {
 public:
  using Make = IH264Encoder* (*)();
  H264EncoderSubject(Make maker, bool mmal) : make_(maker), mmal_(mmal) {}
  ~H264EncoderSubject() override { destroy(); }

  Outcome make() override {
    encoder_ = make_();
    return create();
  }
  Outcome resize() override {
    size_ = sizes[1];
    return create();
  }
  Outcome frame(int i) override {
    const Outcome fed = feed(i);
    return fed.good ? collect() : fed;
  }
  Outcome goOn(bool anew) override {
    if ((anew || !created_) && !create().good)
      return !everCreated_ && wasPrinted(mmal_ ? "failed to create mmal encoder component"
                                               : "invalid state of encoder object.\n")
                 ? Outcome{}
                 : Outcome::refused();
    if (mmal_) drain();
    stream_.clear();
    whole_ = true;
    fed_ = 0;
    return frame(1);
  }
  void launch() override { feed(0); }
  void destroy() override { ReleaseEncoderH264(std::exchange(encoder_, nullptr)); }

 private:
  void drain() {
    Bytes rest(20000);
    unsigned size = 0, flags = 0;
    for (int i = 0; i < 10; ++i)
      encoder_->ProcessOutput(rest.data(), static_cast<unsigned>(rest.size()), size, flags);
  }
  Outcome create() {
    stream_.clear();
    whole_ = true;
    fed_ = 0;
    const Call call;
    // At one frame a second each is a key frame, whose picture tells of nothing that went before.
    created_ = encoder_->Create(0x56595559, size_.width, size_.height, 1, 1, 1, 1, 1000000);
    everCreated_ = everCreated_ || created_;
    const int limitMs = mmal_ ? 0 : answerLimitMs;
    if (created_) return call.within(limitMs, {});
    whole_ = false;
    return call.printedLines() ? call.within(limitMs, Outcome::refused()) : silent("Create");
  }
  Outcome feed(int i) {
    Bytes raw = support::toYuyv(support::scene(size_.width, size_.height, i));
    last_ = i;
    const Call call;
    const CodecStatus status =
        encoder_->ProcessInput(raw.data(), static_cast<unsigned>(raw.size()), 0, i);
    fed_ += status == CodecOk;
    return judgeStatus(status, call, mmal_ ? mmalInput : ilAnswer);
  }
  /// Takes buffers until one holds a slice.
  Outcome collect() {
    for (int misses = 0; misses < 2;) {
      Bytes data(20000, poison);
      unsigned size = poisonedNumber, flags = poisonedNumber;
      const Call call;
      const CodecStatus status =
          encoder_->ProcessOutput(data.data(), static_cast<unsigned>(data.size()), size, flags);
      if (status != CodecOk) {
        whole_ = false;
        if (flags != 0 || size != poisonedNumber || !untouched(data))
          return Outcome::wrong("a failed ProcessOutput wrote its outputs");
        const Outcome judged = judgeStatus(status, call, mmal_ ? mmalOutput : ilAnswer);
        if (!judged.problem.empty()) return judged;
        ++misses;
        continue;
      }
      data.resize(size);
      // An empty buffer, or an event of the component handed out like data.
      whole_ = whole_ && size > 4 && data[0] == 0 && data[1] == 0;
      stream_.insert(stream_.end(), data.begin(), data.end());
      if (holdsSlice(data)) return judge();
    }
    return Outcome::refused();
  }
  Outcome judge() const {
    if (!whole_ || withheldParameterSets(stream_)) return {};
    const support::H264Stream seen = support::decodeH264(stream_);
    if (seen.pictures.size() != static_cast<std::size_t>(fed_))
      return Outcome::wrong("frames in and pictures out differ in number");
    const Size expected =
        mmal_ ? size_ : Size{support::round32(size_.width), support::round16(size_.height)};
    const support::Yuv& picture = seen.pictures.back();
    if (picture.width != expected.width || picture.height != expected.height)
      return Outcome::wrong("a stream of the wrong size");
    if (!shows(picture.y, picture.width, support::scene(size_.width, size_.height, last_)))
      return Outcome::wrong("another picture");
    return {};
  }

  Make make_;
  bool mmal_;  ///< crops the component's rounded size back to the picture's
  Size size_ = sizes[0];
  IH264Encoder* encoder_ = nullptr;
  Bytes stream_;
  bool created_ = false, everCreated_ = false;
  bool whole_ = true;  ///< nothing was refused since Create, so the stream has no holes
  int fed_ = 0;
  int last_ = 0;  ///< frame fed
};

/// A stream of each size and what libavcodec makes of it, made once.
struct Clip {
  support::H264Made made;
  support::H264Stream decoded;
};
const Clip& clip(int which) {
  static const std::vector<Clip> clips = [] {
    std::vector<Clip> all;
    for (const Size& size : sizes) {
      support::H264Options options;
      options.width = size.width;
      options.height = size.height;
      options.frames = 4;
      options.keyInterval = 2;
      Clip each{support::encodeH264(options), {}};
      each.decoded = support::decodeH264(each.made.stream);
      all.push_back(each);
    }
    return all;
  }();
  return clips[static_cast<std::size_t>(which)];
}

class H264DecoderSubject : public Subject {
 public:
  ~H264DecoderSubject() override { destroy(); }

  Outcome make() override {
    IH264Decoder* made = nullptr;
    // Silent where the platform makes nothing and calls it a success.
    if (CreateH264Decoder(&made) == 0)
      return made == nullptr ? Outcome::refused()
                             : Outcome::wrong("a failed creation stored something");
    decoder_ = made;
    return create();
  }
  Outcome resize() override {
    which_ = 1;
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
    drain();
    whole_ = true;
    return frame(2);
  }
  void destroy() override { FreeH264Decoder(std::exchange(decoder_, nullptr)); }

 private:
  Outcome create() {
    whole_ = true;
    const Call call;
    const Size size = sizes[which_];
    created_ = decoder_->Create(size.width, size.height, 0, nullptr);
    if (created_) return call.within(0, {});
    whole_ = false;
    return call.printedLines() ? call.within(0, Outcome::refused()) : silent("Create");
  }
  void drain() {
    Bytes rest(20000);
    unsigned bytes = 0, width = 0, height = 0;
    unsigned long long timestamp = 0;
    for (int i = 0; i < 10; ++i)
      decoder_->ProcessOutput(rest.data(), static_cast<unsigned>(rest.size()), bytes, width, height,
                              timestamp);
  }
  Outcome feed(int i) {
    const support::H264Made& made = clip(which_).made;
    const std::size_t from = made.units[static_cast<std::size_t>(i)];
    Bytes unit(made.stream.begin() + static_cast<std::ptrdiff_t>(from),
               made.stream.begin() +
                   static_cast<std::ptrdiff_t>(made.units[static_cast<std::size_t>(i) + 1]));
    const Call call;
    const Size size = sizes[which_];
    const CodecStatus status =
        decoder_->ProcessInput(unit.data(), static_cast<unsigned>(unit.size()), size.width,
                               size.height, 0, static_cast<unsigned long long>(i) * 40 + 40);
    whole_ = whole_ && status == CodecOk;
    return judgeStatus(status, call, mmalInput);
  }
  Outcome collect(int i) {
    for (int misses = 0; misses < 3; ++misses) {
      Bytes data(20000, poison);
      unsigned bytes = poisonedNumber, width = poisonedNumber, height = poisonedNumber;
      unsigned long long timestamp = poisonedNumber;
      const Call call;
      const CodecStatus status = decoder_->ProcessOutput(
          data.data(), static_cast<unsigned>(data.size()), bytes, width, height, timestamp);
      if (status == CodecOk) return judge(i, data, bytes, timestamp);
      if (width != 0 || height != 0 || timestamp != 0 || bytes != poisonedNumber ||
          !untouched(data))
        return Outcome::wrong("a failed ProcessOutput wrote its outputs");
      created_ = created_ && status != CodecInvalidState;
      const Outcome judged = judgeStatus(status, call, decoderOutput);
      if (!judged.problem.empty()) return judged;
    }
    whole_ = false;
    return Outcome::refused();
  }
  Outcome judge(int i, const Bytes& data, unsigned bytes, unsigned long long timestamp) {
    const Size size = sizes[which_];
    const int picture = support::round32(size.width) * support::round16(size.height) * 3 / 2;
    // An event of the component, handed out like a picture, or an empty one.
    if (bytes != static_cast<unsigned>(picture)) whole_ = false;
    if (!whole_) return {};
    if (timestamp != static_cast<unsigned long long>(i) * 40 + 40)
      return Outcome::wrong("a picture with another one's timestamp");
    if (support::unpadded(data.data(), size.width, size.height).y !=
        clip(which_).decoded.pictures[static_cast<std::size_t>(i)].y)
      return Outcome::wrong("a wrong picture");
    return {};
  }

  int which_ = 0;
  bool created_ = false;
  bool whole_ = true;  ///< nothing was refused since Create, so every picture has its references
  IH264Decoder* decoder_ = nullptr;
};

}  // namespace

const std::vector<SubjectClass>& subjectClasses() {
  static const std::vector<SubjectClass> classes{
      {"CMmalJpegEncoder",
       [] { return std::make_unique<JpegEncoderSubject>(&CreateEncoderJPEG, true); }},
      {"COmxJpegEncoder",
       [] {
         return std::make_unique<JpegEncoderSubject>(
             []() -> IJPEGEncoder* { return new COmxJpegEncoder; }, false);
       }},
      {"DecoderPool", [] { return std::make_unique<DecoderPoolSubject>(); }},
      {"CMmalH264Encoder",
       [] { return std::make_unique<H264EncoderSubject>(&CreateEncoderH264, true); }},
      {"COmxH264Encoder",
       [] {
         return std::make_unique<H264EncoderSubject>(
             []() -> IH264Encoder* { return new COmxH264Encoder; }, false);
       }},
      {"CMmalH264Decoder", [] { return std::make_unique<H264DecoderSubject>(); }},
  };
  return classes;
}

}  // namespace sweep
