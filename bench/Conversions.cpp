#include <libyuv.h>
#include <tessera/Basics.h>
#include <tessera/FrameConversion.h>

#include <cstring>

#include "Content.h"
#include "Work.h"

namespace bench {
namespace {

constexpr Size sizes[] = {{640, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}};

/// A conversion is bound by memory: the limit is a memcpy that moves as many bytes, reads and
/// writes together.
class Conversion : public Work {
 public:
  Conversion(int width, int height)
      : width_(width),
        height_(height),
        source_(sceneYuyv(width, height, height, 0)),
        destination_(tessera::PaddedSize(width, height)),
        from_(moved() / 2),
        to_(moved() / 2) {}

  std::optional<double> limit() override {
    return timed([&] { std::memcpy(to_.data(), from_.data(), from_.size()); });
  }

 protected:
  std::size_t pixels() const { return static_cast<std::size_t>(width_) * height_; }
  std::size_t moved() const { return pixels() * 2 + pixels() * 3 / 2; }

  int width_;
  int height_;
  Buffer source_;
  Buffer destination_;
  Buffer from_;
  Buffer to_;
};

class YuyvToI420 : public Conversion {
 public:
  using Conversion::Conversion;
  double ours(int) override {
    unsigned filled = 0;
    return timed([&] {
      CopyYVYU(source_.data(), source_.size32(), static_cast<unsigned>(width_),
               static_cast<unsigned>(height_), destination_.data(), destination_.size32(), filled);
    });
  }
  double peer(int) override {
    const int stride = tessera::PaddedWidth(width_);
    std::uint8_t* u =
        destination_.data() + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height_);
    std::uint8_t* v = u + static_cast<std::size_t>(stride) * tessera::PaddedHeight(height_) / 4;
    return timed([&] {
      libyuv::YUY2ToI420(source_.data(), 2 * width_, destination_.data(), stride, u, stride / 2, v,
                         stride / 2, width_, height_);
    });
  }
};

class YuyvToNv12 : public Conversion {
 public:
  using Conversion::Conversion;
  double ours(int) override {
    return timed([&] { YUYVToNV12(source_.data(), destination_.data(), width_, height_); });
  }
  double peer(int) override {
    return timed([&] {
      libyuv::YUY2ToNV12(source_.data(), 2 * width_, destination_.data(), width_,
                         destination_.data() + pixels(), width_, width_, height_);
    });
  }
};

class CopyOfI420 : public Work {
 public:
  CopyOfI420(int width, int height)
      : source_(sceneI420(width, height, 0)), destination_(source_.size()) {}

  double ours(int) override {
    unsigned filled = 0;
    return timed([&] {
      CopyI420(source_.data(), source_.size32(), 0, 0, destination_.data(), destination_.size32(),
               filled);
    });
  }
  double peer(int) override {
    return timed([&] { std::memcpy(destination_.data(), source_.data(), source_.size()); });
  }
  std::optional<double> limit() override { return peer(0); }

 private:
  Buffer source_;
  Buffer destination_;
};

template <class Kind>
void add(std::vector<Entry>& entries, const char* work, const char* peer) {
  for (const auto [width, height] : sizes) {
    entries.push_back({work, width, height, peer, [width = width, height = height] {
                         return std::make_unique<Kind>(width, height);
                       }});
  }
}

}  // namespace

void addConversions(std::vector<Entry>& entries) {
  add<YuyvToI420>(entries, "yuyv-to-i420", "libyuv");
  add<YuyvToNv12>(entries, "yuyv-to-nv12", "libyuv");
  add<CopyOfI420>(entries, "copy-i420", "memcpy");
}

}  // namespace bench
