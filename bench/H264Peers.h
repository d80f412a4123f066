#ifndef TESSERA_BENCH_H264PEERS_H
#define TESSERA_BENCH_H264PEERS_H

#include <cstddef>
#include <cstdint>
#include <memory>

namespace bench {

/// The settings that both sides of a comparison share.
struct H264Settings {
  int width;  ///< of the coded picture, cropping aside
  int height;
  int framesPerSecond;
  int bitrate;  ///< bits a second
  int level;    ///< ten times the level's number
};

/// x264 called directly.
class X264 {
 public:
  explicit X264(const H264Settings& settings);
  ~X264();

  /// Encodes a picture of padded I420 planes. @return the bytes of its stream, valid until the next
  /// call
  std::size_t encode(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                     int stride, const std::uint8_t** stream);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// libavcodec's H.264 decoder called directly.
class Avcodec {
 public:
  Avcodec();
  ~Avcodec();

  /// Decodes one access unit, followed by zeros for the decoder to read ahead into, and copies the
  /// picture to planes of padded I420, where the caller's next step wants it.
  /// @return whether a picture came
  bool decode(const std::uint8_t* unit, std::size_t size, std::uint8_t* picture);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace bench

#endif  // TESSERA_BENCH_H264PEERS_H
