#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSTRIP_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSTRIP_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/PackedRows.h"
#include "codec/Picture.h"
#include "codec/cpu/JpegError.h"

namespace codec {

/// A JPEG of some rows of a packed picture, in memory that is kept from picture to picture. One
/// thread at a time per object.
class JpegStrip {
 public:
  struct Job {
    const PackedPicture* picture = nullptr;
    const PackedRows* rows = nullptr;
    unsigned top = 0;
    unsigned height = 0;
    int quality = 75;
    unsigned restartInterval = 0;  ///< MCUs, 0: none
  };

  JpegStrip() = default;
  ~JpegStrip();
  JpegStrip(const JpegStrip&) = delete;
  JpegStrip& operator=(const JpegStrip&) = delete;

  /// Rows of an MCU of the format's sampling.
  static unsigned mcuRows(PixelFormat format);

  /// @return false with error() telling why; throws nothing
  bool encode(const Job& job);
  const char* error() const { return error_; }

  std::uint8_t* data() { return destination_.block; }
  std::size_t size() const { return destination_.size; }
  /// Drops bytes from the end, or makes room for more. @return false when there is no memory
  bool resize(std::size_t bytes);

 private:
  /// libjpeg's destination: one block that grows and stays. Memory of the C library, because it
  /// grows inside libjpeg's calls, where nothing may throw.
  struct Destination {
    jpeg_destination_mgr manager;  // first: libjpeg hands back its address
    std::uint8_t* block;
    std::size_t capacity;
    std::size_t size;

    bool reserve(std::size_t bytes);
  };
  static Destination* destinationOf(j_compress_ptr cinfo);
  static void onStart(j_compress_ptr cinfo);
  static boolean onFull(j_compress_ptr cinfo);
  static void onEnd(j_compress_ptr cinfo);

  bool fail(const char* why);
  void prepareLines(const PackedPicture& picture);
  bool run(const Job& job);
  void create();
  void configure(const Job& job);
  void writeYuyv(const Job& job);
  void writeRgb(const Job& job);

  jpeg_compress_struct cinfo_ = {};
  JpegError errors_ = {};
  Destination destination_ = {};
  bool created_ = false;
  std::vector<std::uint8_t> lines_;  // one MCU row, taken apart or expanded
  const char* error_ = "";
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGSTRIP_H
