// What the examples share that make an H.264 file: it feeds the encoder, collects what comes, loses
// nothing and says what fails. To be copied along with them.

#ifndef TESSERA_EXAMPLES_RECORDER_H
#define TESSERA_EXAMPLES_RECORDER_H

#include <tessera/tessera.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class Recorder {
 public:
  explicit Recorder(const char* path) : path_(path), file_(std::fopen(path, "wb")) {}
  ~Recorder() {
    if (file_ != nullptr) std::fclose(file_);
  }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// Every operation says on standard error what went wrong and returns false.
  bool start(unsigned pixelFormat, int width, int height, unsigned rate, unsigned bitrate) {
    if (file_ == nullptr) return fail("");
    // Room for the longest piece that a component hands out.
    data_.resize(2 * tessera::PaddedSize(width, height) + 65536);
    out_.emplace(width, height);
    return encoder_->Create(pixelFormat, width, height, rate, 1, 1, 1, bitrate);
  }

  /// Takes a frame, and writes it as far as it comes without waiting for the next one.
  bool add(unsigned char* frame, std::size_t size) {
    CodecStatus status = CodecTimeout;
    for (int tries = 0; status == CodecTimeout && tries < 10; ++tries) {
      status = encoder_->ProcessInput(frame, static_cast<unsigned>(size), 0, 0);
      if (status == CodecTimeout) take();  // it may be waiting for room in its output
    }
    if (status != CodecOk) return fail(tessera::StatusText(status));
    ++fed_;
    return takeUntil([this] { return out_->Begun() >= fed_; }, 20);
  }

  /// The rest of the last frame; the file is complete then.
  bool finish() {
    if (fed_ == 0) return fail("there was no frame to write");
    // Whether there is a rest is not known: half a second without any is an answer here.
    takeUntil([this] { return !out_->MayGoOn(); }, 5);
    if (out_->Begun() < fed_) return fail("frames are missing");
    const int closed = std::fclose(file_);
    file_ = nullptr;
    return closed == 0 || fail("");
  }

  unsigned long long frames() const { return fed_; }

 private:
  struct Release {
    void operator()(IH264Encoder* encoder) const { ReleaseEncoderH264(encoder); }
  };

  CodecStatus take() {
    unsigned size = 0, flags = 0;
    const CodecStatus status =
        encoder_->ProcessOutput(data_.data(), static_cast<unsigned>(data_.size()), size, flags);
    if (status != CodecOk) return status;
    out_->Add(data_.data(), size);
    if (std::fwrite(data_.data(), 1, size, file_) != size) written_ = false;
    return status;
  }

  /// A time-out means that it takes longer: `patience` of them in a row, each of 100 ms, are too
  /// many.
  template <typename Done>
  bool takeUntil(Done&& done, int patience) {
    for (int waits = 0; !done();) {
      const CodecStatus status = take();
      waits = status == CodecOk ? 0 : waits + 1;
      const bool late = status == CodecTimeout || status == CodecNoBuffer;
      if ((status != CodecOk && !late) || waits >= patience)
        return fail(tessera::StatusText(status));
      if (!written_) return fail("");
    }
    return true;
  }

  bool fail(const std::string& why) const {
    if (why.empty())
      std::perror(path_.c_str());
    else
      std::fprintf(stderr, "%s: %s\n", path_.c_str(), why.c_str());
    return false;
  }

  std::string path_;
  std::FILE* file_;
  std::unique_ptr<IH264Encoder, Release> encoder_{CreateEncoderH264()};
  std::optional<tessera::EncodedFrames> out_;
  std::vector<unsigned char> data_;
  unsigned long long fed_ = 0;
  bool written_ = true;
};

/// JPEG pictures have the full range, 0 to 255; a stream that does not say so means 16 to 235, and
/// the encoders do not say so. In place, on a picture in the padded layout.
inline void toLimitedRange(unsigned char* picture, int width, int height) {
  const std::size_t size = tessera::PaddedSize(width, height), luma = size / 3 * 2;
  for (std::size_t i = 0; i < size; ++i)
    picture[i] = static_cast<unsigned char>(i < luma ? 16 + (picture[i] * 219 + 127) / 255
                                                     : 16 + (picture[i] * 224 + 127) / 255);
}

#endif  // TESSERA_EXAMPLES_RECORDER_H
