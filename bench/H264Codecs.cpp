#include <libyuv.h>
#include <tessera/Basics.h>
#include <tessera/COmxH264Encoder.h>
#include <tessera/IH264Decoder.h>
#include <tessera/IH264Encoder.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>
#include <tuple>

#include "Content.h"
#include "H264Peers.h"
#include "Work.h"

namespace bench {
namespace {

constexpr Size sizes[] = {{320, 240}, {640, 480}, {1280, 720}, {1920, 1080}};
constexpr int framesPerSecond = 30;
constexpr std::size_t readAhead = 64;
constexpr int runLength = framesPerSecond / 2;
constexpr std::chrono::milliseconds atOnce{0};
constexpr std::chrono::milliseconds likeACamera{15};  // idle before each frame
constexpr int patience = 100;  // time-outs, each of 100 ms, before a codec is given up

/// Calls until there is output or a failure: on a busy machine a frame may take its time.
template <class Call>
bool awaited(Call&& call) {
  CodecStatus status = CodecTimeout;
  for (int i = 0; i < patience && status == CodecTimeout; ++i) status = call();
  return status == CodecOk;
}

enum class Input { I420, Yuyv };
using MakeEncoder = IH264Encoder* (*)();

IH264Encoder* makeOmx() {
  return new COmxH264Encoder;
}

int bitrateFor(int width, int height) {
  return width * height * 4;
}

/// One second of video, there and back again, so that it runs on without a cut.
class Clip {
 public:
  Clip(int width, int height, Input input) : frames_(framesOf(width, height, input)) {}

  Buffer& frame(int i) {
    const int half = framesPerSecond / 2;
    return frames_[static_cast<std::size_t>(i < half ? i : framesPerSecond - 1 - i)];
  }

 private:
  /// To make the frames takes longer than to encode them: they are made once.
  static const std::vector<Buffer>& framesOf(int width, int height, Input input) {
    static std::map<std::tuple<int, int, Input>, std::vector<Buffer>> made;
    std::vector<Buffer>& frames = made[{width, height, input}];
    for (int t = static_cast<int>(frames.size()); t < framesPerSecond / 2; ++t) {
      frames.push_back(input == Input::I420 ? sceneI420(width, height, t)
                                            : sceneYuyv(width, height, height, t));
    }
    return frames;
  }

  std::vector<Buffer> frames_;
};

/// From the caller's frame to the stream's bytes in the caller's memory, one frame at a time: at
/// once after one another, or after a pause in which caches, threads and clocks go idle.
class EncodeH264 : public Work {
 public:
  /// @param coded  the size of the coded picture: the component behind the OpenMAX IL encoder does
  ///               not crop
  EncodeH264(int width, int height, Size coded, int level, Input input, MakeEncoder make,
             std::chrono::milliseconds pause)
      : width_(width),
        height_(height),
        input_(input),
        pause_(pause),
        clip_(width, height, input),
        planes_(tessera::PaddedSize(width, height)),
        stream_(static_cast<std::size_t>(width) * height * 2),
        make_(make),
        settings_({coded.width, coded.height, framesPerSecond, bitrateFor(width, height), level}) {}

  double ours(int frame) override {
    if (!encoder_) start();
    std::this_thread::sleep_for(pause_);
    return timed([&] { encodeOurs(clip_.frame(frame)); });
  }
  double peer(int frame) override {
    if (!x264_) x264_.emplace(settings_);
    std::this_thread::sleep_for(pause_);
    return timed([&] { encodeDirectly(clip_.frame(frame)); });
  }
  int frames() const override { return framesPerSecond; }
  int turn() const override { return 1; }

 private:
  struct Release {
    void operator()(IH264Encoder* encoder) const { ReleaseEncoderH264(encoder); }
  };

  void start() {
    encoder_.reset(make_());
    const unsigned format = input_ == Input::I420 ? tessera::fourccI420 : tessera::fourccYuyv;
    require(encoder_->Create(format, width_, height_, framesPerSecond, 1, 1, 1,
                             static_cast<unsigned>(settings_.bitrate)),
            "the encoder does not start");
  }

  void encodeOurs(Buffer& frame) {
    require(encoder_->ProcessInput(frame.data(), frame.size32(), 0, 0) == CodecOk,
            "the encoder takes no frame");
    unsigned size = 0, flags = 0;
    do {
      require(awaited([&] {
                return encoder_->ProcessOutput(stream_.data(), stream_.size32(), size, flags);
              }),
              "the encoder gives no data");
    } while (!tessera::HasPicture(stream_.data(), size));
  }

  void encodeDirectly(Buffer& frame) {
    const int stride = tessera::PaddedWidth(width_);
    const std::size_t area = static_cast<std::size_t>(stride) * tessera::PaddedHeight(height_);
    std::uint8_t* y = input_ == Input::I420 ? frame.data() : planes_.data();
    std::uint8_t* u = y + area;
    std::uint8_t* v = u + area / 4;
    if (input_ == Input::Yuyv) {
      libyuv::YUY2ToI420(frame.data(), 2 * width_, y, stride, u, stride / 2, v, stride / 2, width_,
                         height_);
    }
    const std::uint8_t* data = nullptr;
    const std::size_t size = x264_->encode(y, u, v, stride, &data);
    std::memcpy(stream_.data(), data, size);
  }

  int width_;
  int height_;
  Input input_;
  std::chrono::milliseconds pause_;
  Clip clip_;
  Buffer planes_;
  Buffer stream_;
  MakeEncoder make_;
  H264Settings settings_;
  std::unique_ptr<IH264Encoder, Release> encoder_;
  std::optional<X264> x264_;
};

/// From an access unit to its picture as padded I420 in the caller's memory: one at a time, or as
/// applications do it that feed ahead by one unit, so that the picture is copied out while the next
/// is decoded.
class DecodeH264 : public Work {
 public:
  /// @param length  units that are fed one ahead before everything is collected; a divisor of
  ///                framesPerSecond, 1 for one at a time
  DecodeH264(int width, int height, int length)
      : width_(width),
        height_(height),
        length_(length),
        picture_(tessera::PaddedSize(width, height)) {
    encodeUnits();
  }

  double ours(int run) override {
    if (!decoder_) start();
    return timed([&] { decodeRun(run * length_); }) / length_;
  }
  double peer(int run) override {
    if (!avcodec_) avcodec_.emplace();
    return timed([&] {
             for (int i = 0; i < length_; ++i) decodeDirectly(unit(run * length_ + i));
           }) /
           length_;
  }
  int frames() const override { return framesPerSecond / length_; }
  int turn() const override { return 1; }
  /// libyuv copies without memcpy.
  Loops loops() const override { return {0, 1.5 * width_ * height_ * length_}; }

 private:
  struct Release {
    void operator()(IH264Decoder* decoder) const { FreeH264Decoder(decoder); }
  };

  void start() {
    IH264Decoder* made = nullptr;
    require(CreateH264Decoder(&made) == 1, "there is no decoder");
    decoder_.reset(made);
    require(made->Create(width_, height_, 0, nullptr), "the decoder does not start");
  }

  void encodeUnits() {
    X264 x264({width_, height_, framesPerSecond, bitrateFor(width_, height_), 40});
    Clip clip(width_, height_, Input::I420);
    const std::size_t area =
        static_cast<std::size_t>(tessera::PaddedWidth(width_)) * tessera::PaddedHeight(height_);
    for (int i = 0; i < framesPerSecond; ++i) {
      const std::uint8_t* y = clip.frame(i).data();
      const std::uint8_t* data = nullptr;
      const std::size_t size =
          x264.encode(y, y + area, y + area + area / 4, tessera::PaddedWidth(width_), &data);
      Buffer unit(size + readAhead);
      std::memcpy(unit.data(), data, size);
      units_.push_back(std::move(unit));
    }
  }

  Buffer& unit(int i) { return units_[static_cast<std::size_t>(i)]; }

  /// What overlaps is timed as a whole, from nothing fed to everything collected.
  void decodeRun(int first) {
    feed(unit(first));
    for (int i = 1; i < length_; ++i) {
      feed(unit(first + i));
      collect();
    }
    collect();
  }

  void feed(Buffer& unit) {
    const auto size = static_cast<unsigned>(unit.size() - readAhead);
    require(decoder_->ProcessInput(unit.data(), size, width_, height_, 0, 0) == CodecOk,
            "the decoder takes no data");
  }

  void collect() {
    unsigned filled = 0, width = 0, height = 0;
    unsigned long long timestamp = 0;
    require(awaited([&] {
              return decoder_->ProcessOutput(picture_.data(), picture_.size32(), filled, width,
                                             height, timestamp);
            }),
            "the decoder gives no picture");
  }

  void decodeDirectly(const Buffer& unit) {
    require(avcodec_->decode(unit.data(), unit.size() - readAhead, picture_.data()),
            "libavcodec gives no picture");
  }

  int width_;
  int height_;
  int length_;
  Buffer picture_;
  std::vector<Buffer> units_;
  std::unique_ptr<IH264Decoder, Release> decoder_;
  std::optional<Avcodec> avcodec_;
};

void addEncoder(std::vector<Entry>& entries, const std::string& work, Input input, bool omx,
                std::chrono::milliseconds pause) {
  for (const auto [width, height] : sizes) {
    entries.push_back(
        {work, width, height, "x264", [=, width = width, height = height] {
           const Size coded = omx ? Size{tessera::PaddedWidth(width), tessera::PaddedHeight(height)}
                                  : Size{width, height};
           return std::make_unique<EncodeH264>(width, height, coded, omx ? 40 : 51, input,
                                               omx ? makeOmx : CreateEncoderH264, pause);
         }});
  }
}

void addDecoder(std::vector<Entry>& entries, const std::string& work, int length) {
  for (const auto [width, height] : sizes) {
    entries.push_back({work, width, height, "libavcodec", [=, width = width, height = height] {
                         return std::make_unique<DecodeH264>(width, height, length);
                       }});
  }
}

}  // namespace

void addH264Codecs(std::vector<Entry>& entries) {
  addEncoder(entries, "h264-encode i420", Input::I420, false, atOnce);
  addEncoder(entries, "h264-encode yuyv", Input::Yuyv, false, atOnce);
  addEncoder(entries, "h264-encode-omx i420", Input::I420, true, atOnce);
  addEncoder(entries, "h264-encode-omx yuyv", Input::Yuyv, true, atOnce);
  addEncoder(entries, "h264-encode-latency i420", Input::I420, false, likeACamera);
  addDecoder(entries, "h264-decode", runLength);
  addDecoder(entries, "h264-decode-latency", 1);
}

}  // namespace bench
