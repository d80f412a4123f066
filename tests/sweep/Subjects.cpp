#include <tessera/tessera.h>
#include <tessera_platform/control.h>

#include <algorithm>
#include <chrono>
#include <iterator>
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

bool untouched(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == poison; });
}

Outcome silent(const char* what) {
  return Outcome::wrong(std::string(what) + " failed in silence");
}

/// A refused call prints at least one line.
class Lines {
 public:
  Lines() : before_(printed()) {}
  bool any() const { return printed() > before_; }

 private:
  std::size_t before_;
};

/// Whether a wait was one of the long ones.
class Watch {
 public:
  bool slow() const { return Clock::now() - start_ > std::chrono::milliseconds(300); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

Outcome judgeJpeg(const Bytes& jpeg, const support::Image& scene, Size expected) {
  const support::JpegPicture picture = support::decodeJpeg(jpeg);
  if (!picture.ok) return Outcome::wrong("not a JPEG: " + picture.error);
  if (picture.width != expected.width || picture.height != expected.height)
    return Outcome::wrong("a JPEG of the wrong size");
  const support::Yuv truth = support::toYuv(scene);
  Bytes seen;
  for (int y = 0; y < scene.height; ++y)
    seen.insert(seen.end(), &picture.y[static_cast<std::size_t>(y) * picture.width],
                &picture.y[static_cast<std::size_t>(y) * picture.width] + scene.width);
  if (support::psnr(seen, truth.y) < 30) return Outcome::wrong("a JPEG of another picture");
  return {};
}

class JpegEncoderSubject : public Subject {
 public:
  using Make = IJPEGEncoder* (*)();
  JpegEncoderSubject(Make maker, bool crops) : make_(maker), crops_(crops) {}
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
    Bytes jpeg(100000, poison);
    unsigned size = poisonedNumber;
    const Lines lines;
    if (encoder_->EncodeYUYV(raw.data(), static_cast<unsigned>(raw.size()), size_.width,
                             size_.height, jpeg.data(), static_cast<unsigned>(jpeg.size()),
                             size) == 0) {
      if (!lines.any()) return silent("the encode");
      if (size != poisonedNumber) return Outcome::wrong("a failed encode told a size");
      // Where the component goes back to Idle after the JPEG, that step may fail alone.
      return !crops_ || untouched(jpeg) ? Outcome::refused()
                                        : Outcome::wrong("a failed encode wrote its output");
    }
    jpeg.resize(size);
    return judgeJpeg(jpeg, scene, crops_ ? size_ : rounded);
  }
  void launch() override {
    Bytes raw(64 * 48 * 2), jpeg(16);
    unsigned size = 0;
    encoder_->EncodeYUYV(raw.data(), static_cast<unsigned>(raw.size()), 64, 48, jpeg.data(), 16,
                         size);
  }
  void destroy() override { ReleaseEncoderJPEG(std::exchange(encoder_, nullptr)); }

 private:
  Make make_;
  bool crops_;
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
    const Lines lines;
    const unsigned char* const data = pool_->DecodeJpeg(
        reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned>(jpeg.size()), width, height);
    if (data == nullptr) return lines.any() ? Outcome::refused() : silent("the decode");
    if (width != size_.width || height != size_.height)
      return Outcome::wrong("a picture of the wrong size");
    if (support::unpadded(data, width, height).y != support::decodeJpeg(jpeg).y)
      return Outcome::wrong("a wrong picture");
    return {};
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

/// What a status owes the reader: a line, or nothing where the result says it all.
Outcome judgeStatus(CodecStatus status, const Lines& lines, bool silentTimeout) {
  static constexpr int known[] = {CodecNoBuffer,       CodecSendFailed,    CodecInvalidArgument,
                                  CodecInvalidState,   CodecWaitFailed,    CodecTimeout,
                                  CodecBufferTooSmall, CodecStreamMismatch};
  if (std::find(std::begin(known), std::end(known), status) == std::end(known))
    return Outcome::wrong("a status that nobody knows");
  const bool quiet = status == CodecNoBuffer || status == CodecBufferTooSmall ||
                     (status == CodecTimeout && silentTimeout);
  return quiet || lines.any() ? Outcome::refused() : silent("the operation");
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
  H264EncoderSubject(Make maker, bool crops) : make_(maker), crops_(crops) {}
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
  void launch() override { feed(0); }
  void destroy() override { ReleaseEncoderH264(std::exchange(encoder_, nullptr)); }

 private:
  Outcome create() {
    stream_.clear();
    whole_ = true;
    fed_ = 0;
    const Lines lines;
    if (encoder_->Create(0x56595559, size_.width, size_.height, 30, 1, 1, 1, 1000000)) return {};
    whole_ = false;
    return lines.any() ? Outcome::refused() : silent("Create");
  }
  Outcome feed(int i) {
    Bytes raw = support::toYuyv(support::scene(size_.width, size_.height, i));
    const Lines lines;
    const CodecStatus status =
        encoder_->ProcessInput(raw.data(), static_cast<unsigned>(raw.size()), 0, i);
    fed_ += status == CodecOk;
    return status == CodecOk ? Outcome{} : judgeStatus(status, lines, false);
  }
  /// Takes buffers until one holds a slice.
  Outcome collect() {
    for (int misses = 0; misses < 20;) {
      Bytes data(200000, poison);
      unsigned size = poisonedNumber, flags = poisonedNumber;
      const Lines lines;
      const Watch watch;
      const CodecStatus status =
          encoder_->ProcessOutput(data.data(), static_cast<unsigned>(data.size()), size, flags);
      if (status != CodecOk) {
        whole_ = false;
        if (flags != 0 || size != poisonedNumber || !untouched(data))
          return Outcome::wrong("a failed ProcessOutput wrote its outputs");
        const Outcome judged = judgeStatus(status, lines, false);
        if (!judged.problem.empty()) return judged;
        misses += watch.slow() ? 10 : 1;
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
        crops_ ? size_ : Size{support::round32(size_.width), support::round16(size_.height)};
    if (seen.pictures.back().width != expected.width ||
        seen.pictures.back().height != expected.height)
      return Outcome::wrong("a stream of the wrong size");
    return {};
  }

  Make make_;
  bool crops_;
  Size size_ = sizes[0];
  IH264Encoder* encoder_ = nullptr;
  Bytes stream_;
  bool whole_ = true;  ///< nothing was refused since Create, so the stream has no holes
  int fed_ = 0;
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
    if (CreateH264Decoder(&made) == 0) {
      if (made != nullptr) return Outcome::wrong("a failed creation stored something");
      // Silent where the platform reports success and gives no component.
      return Outcome::refused();
    }
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
  void destroy() override { FreeH264Decoder(std::exchange(decoder_, nullptr)); }

 private:
  Outcome create() {
    whole_ = true;
    const Lines lines;
    const Size size = sizes[which_];
    if (decoder_->Create(size.width, size.height, 0, nullptr)) return {};
    whole_ = false;
    return lines.any() ? Outcome::refused() : silent("Create");
  }
  Outcome feed(int i) {
    const support::H264Made& made = clip(which_).made;
    const std::size_t from = made.units[static_cast<std::size_t>(i)];
    Bytes unit(made.stream.begin() + static_cast<std::ptrdiff_t>(from),
               made.stream.begin() +
                   static_cast<std::ptrdiff_t>(made.units[static_cast<std::size_t>(i) + 1]));
    const Lines lines;
    const Size size = sizes[which_];
    const CodecStatus status =
        decoder_->ProcessInput(unit.data(), static_cast<unsigned>(unit.size()), size.width,
                               size.height, 0, static_cast<unsigned long long>(i) * 40 + 40);
    if (status == CodecOk) return {};
    whole_ = false;
    return judgeStatus(status, lines, false);
  }
  Outcome collect(int i) {
    for (int misses = 0; misses < 20; ++misses) {
      Bytes data(20000, poison);
      unsigned bytes = poisonedNumber, width = poisonedNumber, height = poisonedNumber;
      unsigned long long timestamp = poisonedNumber;
      const Lines lines;
      const CodecStatus status = decoder_->ProcessOutput(
          data.data(), static_cast<unsigned>(data.size()), bytes, width, height, timestamp);
      if (status == CodecOk) return judge(i, data, bytes, timestamp);
      if (width != 0 || height != 0 || timestamp != 0 || bytes != poisonedNumber ||
          !untouched(data))
        return Outcome::wrong("a failed ProcessOutput wrote its outputs");
      const Outcome judged = judgeStatus(status, lines, true);
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
