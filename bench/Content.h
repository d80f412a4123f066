#ifndef TESSERA_BENCH_CONTENT_H
#define TESSERA_BENCH_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace bench {

/// Bytes on a boundary that suits every processor's vectors.
class Buffer {
 public:
  explicit Buffer(std::size_t size);
  Buffer(const Buffer& other);
  Buffer(Buffer&&) = default;
  std::uint8_t* data() { return bytes_.get(); }
  const std::uint8_t* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  unsigned size32() const { return static_cast<unsigned>(size_); }

 private:
  struct Free {
    void operator()(std::uint8_t* bytes) const;
  };
  std::size_t size_;
  std::unique_ptr<std::uint8_t, Free> bytes_;
};

/// Frame `t` of a scene like a camera's: a gradient, texture and objects that drift, sensor noise.
/// The same on every run and machine. Even sizes only.
/// @return padded I420; the padding repeats the edge
Buffer sceneI420(int width, int height, int t);

/// The same picture in other layouts. Rows below the picture, up to `rows`, repeat the last.
Buffer sceneYuyv(int width, int height, int rows, int t);

enum class ByteOrder { Rgba, Bgra };
Buffer sceneRgb32(int width, int height, int rows, ByteOrder order);

}  // namespace bench

#endif  // TESSERA_BENCH_CONTENT_H
