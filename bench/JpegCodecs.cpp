#include <libyuv.h>
#include <tessera/Basics.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera/DecoderPool.h>
#include <tessera/IJPEGEncoder.h>
#include <turbojpeg.h>

#include <array>
#include <cstdlib>

#include "Content.h"
#include "Work.h"

namespace bench {
namespace {

constexpr Size sizes[] = {{320, 240}, {640, 480}, {1280, 720}, {1920, 1080}};
constexpr int quality = 75;

struct CloseTurbo {
  void operator()(void* handle) const { tjDestroy(handle); }
};
using Turbo = std::unique_ptr<void, CloseTurbo>;

struct ReleaseEncoder {
  void operator()(IJPEGEncoder* encoder) const { ReleaseEncoderJPEG(encoder); }
};
using Encoder = std::unique_ptr<IJPEGEncoder, ReleaseEncoder>;
using MakeEncoder = IJPEGEncoder* (*)();

IJPEGEncoder* makeOmx() {
  return new COmxJpegEncoder;
}

/// Both sides write into memory that the caller keeps; frames have the rows that the encoders'
/// ports take.
class Encode : public Work {
 public:
  Encode(int width, int height, Buffer frame, MakeEncoder make)
      : width_(width),
        height_(height),
        frame_(std::move(frame)),
        jpeg_(tjBufSize(width, height, TJSAMP_444)),
        make_(make),
        turbo_(tjInitCompress()) {}

 protected:
  IJPEGEncoder& encoder() {
    if (!encoder_) encoder_.reset(make_());
    return *encoder_;
  }
  void tookTurbo(int result) { require(result == 0, "TurboJPEG does not encode"); }
  void tookOurs(int result) { require(result == 1, "the encoder does not encode"); }

  int width_;
  int height_;
  Buffer frame_;
  Buffer jpeg_;
  MakeEncoder make_;
  Encoder encoder_;
  Turbo turbo_;
};

class EncodeYuyv : public Encode {
 public:
  EncodeYuyv(int width, int height, MakeEncoder make)
      : Encode(width, height, sceneYuyv(width, height, tessera::PaddedHeight(height), 0), make),
        planes_(static_cast<std::size_t>(2) * width * height) {}

  double ours(int) override {
    return timed([&] {
      unsigned size = 0;
      tookOurs(encoder().EncodeYUYV(frame_.data(), frame_.size32(), width_, height_, jpeg_.data(),
                                    jpeg_.size32(), size));
    });
  }

  /// TurboJPEG takes planes: an application takes the packed frame apart first.
  double peer(int) override {
    std::uint8_t* y = planes_.data();
    std::uint8_t* u = y + static_cast<std::size_t>(width_) * height_;
    std::uint8_t* v = u + static_cast<std::size_t>(width_) / 2 * height_;
    const unsigned char* planes[] = {y, u, v};
    const int strides[] = {width_, width_ / 2, width_ / 2};
    return timed([&] {
      libyuv::YUY2ToI422(frame_.data(), 2 * width_, y, strides[0], u, strides[1], v, strides[2],
                         width_, height_);
      unsigned char* to = jpeg_.data();
      unsigned long size = jpeg_.size();
      tookTurbo(tjCompressFromYUVPlanes(turbo_.get(), planes, width_, strides, height_, TJSAMP_422,
                                        &to, &size, quality, TJFLAG_NOREALLOC));
    });
  }

  /// Both take the packed frame apart, the library row by row.
  Loops loops() const override {
    const double frame = 2.0 * width_ * height_;
    return {frame, frame};
  }

 private:
  Buffer planes_;
};

template <ByteOrder order>
class EncodeRgb32 : public Encode {
 public:
  EncodeRgb32(int width, int height, MakeEncoder make)
      : Encode(width, height, sceneRgb32(width, height, tessera::PaddedHeight(height), order),
               make) {}

  double ours(int) override {
    return timed([&] {
      unsigned size = 0;
      tookOurs(encoder().EncodeRGB32(frame_.data(), frame_.size32(), width_, height_, jpeg_.data(),
                                     jpeg_.size32(), size));
    });
  }
  double peer(int) override {
    return timed([&] {
      unsigned char* to = jpeg_.data();
      unsigned long size = jpeg_.size();
      tookTurbo(tjCompress2(turbo_.get(), frame_.data(), width_, 4 * width_, height_,
                            order == ByteOrder::Rgba ? TJPF_RGBX : TJPF_BGRX, &to, &size,
                            TJSAMP_420, quality, TJFLAG_NOREALLOC));
    });
  }
};

enum class Kind { Plain, Restart, Alternating };

/// One picture again and again, without or with a restart marker behind each row of MCUs, or two of
/// almost one size in turn: then the pool rebuilds its output for each.
class Decode : public Work {
 public:
  Decode(int width, int height, Kind kind)
      : planes_(tessera::PaddedSize(width, height)), turbo_(tjInitDecompress()) {
    if (kind == Kind::Restart) setenv("TJ_RESTART", "1", 1);  // TurboJPEG's own switch
    jpegs_.push_back(makeJpeg(width, height));
    unsetenv("TJ_RESTART");
    if (kind == Kind::Alternating) jpegs_.push_back(makeJpeg(width - 32, height - 16));
  }

  int frames() const override { return static_cast<int>(jpegs_.size()); }

  double ours(int frame) override {
    Jpeg& jpeg = jpegs_[static_cast<std::size_t>(frame)];
    if (!pool_) pool_.reset(GetDecoderPool());
    return timed([&] {
      int width = 0, height = 0;
      require(pool_->DecodeJpeg(reinterpret_cast<char*>(jpeg.bytes.data()), jpeg.bytes.size32(),
                                width, height) != nullptr &&
                  width == jpeg.width && height == jpeg.height,
              "the pool does not decode");
    });
  }

  double peer(int frame) override {
    return timed([&] { decodeWithTurbo(jpegs_[static_cast<std::size_t>(frame)]); });
  }

 private:
  struct Jpeg {
    int width;
    int height;
    Buffer bytes;
  };
  struct ReleasePool {
    void operator()(DecoderPool* pool) const { ReleaseDecoderPool(pool); }
  };

  static Jpeg makeJpeg(int width, int height) {
    const Turbo turbo(tjInitCompress());
    const Buffer frame = sceneRgb32(width, height, height, ByteOrder::Rgba);
    Buffer room(tjBufSize(width, height, TJSAMP_420));
    unsigned char* to = room.data();
    unsigned long size = room.size();
    require(tjCompress2(turbo.get(), frame.data(), width, 4 * width, height, TJPF_RGBX, &to, &size,
                        TJSAMP_420, quality, TJFLAG_NOREALLOC) == 0,
            "TurboJPEG does not encode");
    Jpeg jpeg{width, height, Buffer(size)};
    std::copy_n(room.data(), size, jpeg.bytes.data());
    return jpeg;
  }

  /// Header first, as for a picture whose size is not known.
  void decodeWithTurbo(const Jpeg& jpeg) {
    int width = 0, height = 0, sampling = 0, colours = 0;
    require(tjDecompressHeader3(turbo_.get(), jpeg.bytes.data(), jpeg.bytes.size(), &width, &height,
                                &sampling, &colours) == 0,
            "TurboJPEG does not read the header");
    const int stride = tessera::PaddedWidth(width);
    std::uint8_t* u =
        planes_.data() + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height);
    std::uint8_t* v = u + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height) / 4;
    std::array<unsigned char*, 3> planes{planes_.data(), u, v};
    std::array<int, 3> strides{stride, stride / 2, stride / 2};
    require(tjDecompressToYUVPlanes(turbo_.get(), jpeg.bytes.data(), jpeg.bytes.size(),
                                    planes.data(), width, strides.data(), height, 0) == 0,
            "TurboJPEG does not decode");
  }

  Buffer planes_;
  std::vector<Jpeg> jpegs_;
  std::unique_ptr<DecoderPool, ReleasePool> pool_;
  Turbo turbo_;
};

template <class Codec, class Argument>
void add(std::vector<Entry>& entries, const char* work, Argument argument) {
  for (const auto [width, height] : sizes) {
    entries.push_back(
        {work, width, height, "turbojpeg", [width = width, height = height, argument] {
           return std::make_unique<Codec>(width, height, argument);
         }});
  }
}

}  // namespace

void addJpegCodecs(std::vector<Entry>& entries) {
  add<EncodeYuyv>(entries, "jpeg-encode yuyv", CreateEncoderJPEG);
  add<EncodeRgb32<ByteOrder::Rgba>>(entries, "jpeg-encode rgb32", CreateEncoderJPEG);
  add<EncodeYuyv>(entries, "jpeg-encode-omx yuyv", makeOmx);
  add<EncodeRgb32<ByteOrder::Bgra>>(entries, "jpeg-encode-omx rgb32", makeOmx);
  add<Decode>(entries, "jpeg-decode", Kind::Plain);
  add<Decode>(entries, "jpeg-decode restart", Kind::Restart);
  add<Decode>(entries, "jpeg-decode alternating", Kind::Alternating);
}

}  // namespace bench
