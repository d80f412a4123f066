#include "codec/Choice.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "codec/ParameterSets.h"
#include "codec/cpu/H264Decoder.h"
#include "codec/cpu/H264Encoder.h"
#include "codec/cpu/H264Libav.h"
#include "codec/cpu/JpegDecoder.h"
#include "codec/cpu/JpegEncoder.h"
#include "codec/kernel/H264Encoder.h"
#include "codec/kernel/H264M2m.h"
#include "codec/kernel/JpegDecoder.h"
#include "codec/kernel/JpegEncoder.h"

namespace codec {

Codecs chosenCodecs() {
  const char* const choice = std::getenv("TESSERA_CODECS");
  if (choice == nullptr) return Codecs::Auto;
  if (std::strcmp(choice, "cpu") == 0) return Codecs::Cpu;
  if (std::strcmp(choice, "kernel") == 0) return Codecs::Kernel;
  return Codecs::Auto;
}

namespace {

/// Where nothing but the kernel will do, the reason is for the user.
void complain(const std::string& why) {
  std::fprintf(stderr, "tessera platform: %s\n", why.c_str());
}

class ChosenVideoEncoder final : public VideoEncoder {
 public:
  bool open(const Config& config) override {
    const Codecs codecs = chosenCodecs();
    coder_ = &cpu_;
    if (codecs == Codecs::Cpu) return cpu_.open(config);
    if (kernel_.open(config)) {
      coder_ = &kernel_;
      return true;
    }
    if (codecs == Codecs::Auto) return cpu_.open(config);
    coder_ = &kernel_;
    complain(kernel_.error());
    return false;
  }
  bool isOpen() const override { return coder_->isOpen(); }
  const std::vector<std::uint8_t>& parameterSets() const override {
    return coder_->parameterSets();
  }
  bool encode(const ConstPlanes& frame, std::int64_t pts, bool forceKeyFrame) override {
    const bool good = coder_->encode(frame, pts, forceKeyFrame);
    if (!good && coder_ == &kernel_) complain(error());
    return good;
  }
  const std::uint8_t* data() const override { return coder_->data(); }
  std::size_t size() const override { return coder_->size(); }
  bool isKeyFrame() const override { return coder_->isKeyFrame(); }
  std::int64_t pts() const override { return coder_->pts(); }
  const std::string& error() const override { return coder_->error(); }

 private:
  H264Encoder cpu_;
  kernel::H264Encoder kernel_;
  VideoEncoder* coder_ = &cpu_;
};

/// Takes an engine at a stream's first parameter sets: they tell the size, and nothing can be
/// decoded before them.
class ChosenEngine final : public H264Engine {
 public:
  bool open(const std::vector<std::uint8_t>& parameterSets) override {
    open_ = true;
    if (engine_ != nullptr) return engine_->open(parameterSets);
    known_ = ParameterSets();
    known_.add(parameterSets.data(), parameterSets.size());
    if (chosenCodecs() == Codecs::Cpu) engine_ = &cpu_;
    return engine_ == nullptr || engine_->open(parameterSets);
  }
  void close() override {
    if (engine_ != nullptr) engine_->close();
    engine_ = nullptr;
    open_ = false;
  }
  bool isOpen() const override { return open_; }
  bool send(const std::uint8_t* data, std::size_t size, std::int64_t serial) override {
    if (engine_ == nullptr && !choose(data, size)) return true;
    return engine_->send(data, size, serial);
  }
  void finish() override {
    if (engine_ != nullptr) engine_->finish();
  }
  Frame receive() override { return engine_ != nullptr ? engine_->receive() : nullptr; }
  void recycle(Frame frame) override {
    if (engine_ != nullptr) engine_->recycle(std::move(frame));
  }
  int delay() const override { return engine_ != nullptr ? engine_->delay() : 0; }
  void setDelay(int pictures) override {
    if (engine_ != nullptr) engine_->setDelay(pictures);
  }
  bool reportsDamage() const override { return engine_ == nullptr || engine_->reportsDamage(); }
  bool showsDeepPictures() const override {
    return engine_ != nullptr && engine_->showsDeepPictures();
  }
  std::string failure() const override { return engine_ != nullptr ? engine_->failure() : ""; }

 private:
  /// @return false while there is nothing to choose by
  bool choose(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> before = known_.annexB();
    known_.add(data, size);
    unsigned columns = 0, rows = 0;
    if (!known_.codedSize(columns, rows)) return false;
    engine_ = &kernel_;
    if (!kernel_.find(columns * 16, rows * 16) && chosenCodecs() == Codecs::Auto) engine_ = &cpu_;
    if (!engine_->open(before) && engine_->failure().empty()) throw std::bad_alloc();
    return true;
  }

  H264Libav cpu_;
  kernel::H264M2m kernel_;
  H264Engine* engine_ = nullptr;
  ParameterSets known_;
  bool open_ = false;
};

/// Pictures are decided about one by one: one that the device does not take goes to the CPU, also
/// where only the kernel will do, as long as there is a device at all.
class ChosenImageEncoder final : public ImageEncoder {
 public:
  bool encode(const PackedPicture& picture, int quality) override {
    coder_ = &kernel_;
    const bool asked =
        codecs_ == Codecs::Kernel || (codecs_ == Codecs::Auto && !kernel_.gaveUp(picture));
    if (asked && kernel_.encode(picture, quality)) return true;
    if (codecs_ == Codecs::Kernel && kernel_.gaveUp(picture)) {
      complain(error());
      return false;
    }
    coder_ = &cpu_;
    return cpu_.encode(picture, quality);
  }
  bool lacksMemory() const override { return coder_->lacksMemory(); }
  const std::uint8_t* data() const override { return coder_->data(); }
  std::size_t size() const override { return coder_->size(); }
  const std::string& error() const override { return coder_->error(); }

 private:
  const Codecs codecs_ = chosenCodecs();
  JpegEncoder cpu_;
  // Where the CPU would do as well, a setting is not lost on a device without it.
  kernel::JpegEncoder kernel_{codecs_ == Codecs::Kernel};
  ImageEncoder* coder_ = &cpu_;
};

class ChosenImageDecoder final : public ImageDecoder {
 public:
  bool open(const std::uint8_t* data, std::size_t size) override {
    return decoder_.open(data, size);
  }
  unsigned width() const override { return decoder_.width(); }
  unsigned height() const override { return decoder_.height(); }
  Result decode(const Planes& planes) override {
    const bool asked = codecs_ == Codecs::Kernel || (codecs_ == Codecs::Auto && !decoder_.gaveUp());
    const Result result = asked ? decoder_.decode(planes) : Result::Unusable;
    if (result == Result::Complete) return result;
    if (codecs_ != Codecs::Kernel || !decoder_.gaveUp()) return decoder_.decodeOnCpu(planes);
    complain(error());
    return result;
  }
  const std::string& error() const override { return decoder_.error(); }

 private:
  const Codecs codecs_ = chosenCodecs();
  kernel::JpegDecoder decoder_;
};

}  // namespace

std::unique_ptr<ImageEncoder> makeImageEncoder() {
  return std::make_unique<ChosenImageEncoder>();
}

std::unique_ptr<ImageDecoder> makeImageDecoder() {
  return std::make_unique<ChosenImageDecoder>();
}

std::unique_ptr<VideoEncoder> makeVideoEncoder() {
  return std::make_unique<ChosenVideoEncoder>();
}

std::unique_ptr<VideoDecoder> makeVideoDecoder() {
  return std::make_unique<H264Decoder>(std::make_unique<ChosenEngine>());
}

}  // namespace codec
